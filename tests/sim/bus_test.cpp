// The bus: faults on demand, and what outlives the program that has a device open.
#include <gtest/gtest.h>

#include <cerrno>

#include "bus/sim_device.h"
#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

TEST(FaultBoard, FaultsHappenInTheirOrderAndNumber) {
    struct Setting {
        int error;
        std::uint32_t count;
        std::uint32_t skip;
    };
    const struct {
        std::vector<Setting> settings;
        std::vector<int> taken;  ///< one after the other
    } cases[] = {
        {{}, {0}},
        {{{EIO, 0, 0}}, {0}},
        {{{EIO, 1, 0}}, {EIO, 0, 0}},
        {{{EIO, 3, 2}}, {0, 0, EIO, EIO, EIO, 0}},
        {{{EIO, kAlways, 1}}, {0, EIO, EIO, EIO, EIO}},
        {{{EIO, 1, 1}, {EPIPE, 2, 1}}, {0, EIO, 0, EPIPE, EPIPE, 0}},
    };
    for (const auto& c : cases) {
        FaultBoard board;
        for (const Setting& s : c.settings)
            board.add(BusFault::status, kMessageOut, s.error, s.count, s.skip);
        board.add(BusFault::status, kJobOut, EPERM, kAlways, 0);
        board.add(BusFault::submit, kMessageOut, EPERM, kAlways, 0);
        board.add(BusFault::never, kMessageOut, 0, 1, 0);
        for (const int error : c.taken)
            EXPECT_EQ(board.take(BusFault::status, kMessageOut), error) << &c - cases;
        EXPECT_EQ(board.take(BusFault::never, kMessageOut), 1);
        EXPECT_EQ(board.take(BusFault::submit, kMessageOut), EPERM);
        board.clear();
        EXPECT_EQ(board.take(BusFault::submit, kMessageOut), 0);
    }
}

TEST(FaultBoard, CountsTheBytesUntilTheUnplug) {
    using Left = std::optional<std::size_t>;
    const struct {
        std::uint64_t limit;
        std::vector<std::size_t> sizes;
        std::vector<Left> left;
    } cases[] = {
        {0, {5, 5}, {Left(0), {}}},
        {5, {5, 5}, {Left(5), {}}},
        {6, {5, 5, 5}, {{}, Left(1), {}}},
        {10, {4, 5, 3}, {{}, {}, Left(1)}},
    };
    for (const auto& c : cases) {
        FaultBoard board;
        board.unplug_after(kJobOut, c.limit);
        for (std::size_t i = 0; i < c.sizes.size(); ++i) {
            EXPECT_EQ(board.count_out(kMessageOut, 1000), Left()) << "another endpoint";
            EXPECT_EQ(board.count_out(kJobOut, c.sizes[i]), c.left[i]) << c.limit << ": " << i;
        }
        board.unplug_after(kJobOut, 0);
        board.clear();
        EXPECT_EQ(board.count_out(kJobOut, 1), Left());
    }
}

/// A program that has a device open.
class Program {
public:
    explicit Program(SimDevice& device) : device_(device), client_(device.open()) {}
    ~Program() { device_.close(client_); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void send(std::uint8_t endpoint, std::string bytes) { EXPECT_EQ(transfer(endpoint, bytes), 0); }

    /// What the device sends up to its next short packet, at most @p size bytes.
    std::string read(std::uint8_t endpoint, std::size_t size = 1U << 16U) {
        std::string bytes(size, '\0');
        if (transfer(endpoint, bytes) == 0) return bytes;
        std::optional<Urb> cancelled;
        EXPECT_EQ(device_.discard(client_, handle_) | device_.reap(client_, cancelled), 0);
        return "";
    }

    void reset() {
        std::string bytes(1U << 16U, '\0');
        EXPECT_EQ(transfer(kJobIn, bytes), 0) << "a report is there";
        EXPECT_EQ(transfer(kJobIn, bytes), EAGAIN);
        EXPECT_EQ(device_.reset(), 0);
        std::optional<Urb> ended;
        EXPECT_EQ(device_.reap(client_, ended), 0);
        EXPECT_EQ(device_.release(client_, 1), EINVAL) << "the reset has taken it away";
    }

    void select_configuration() {
        EXPECT_EQ(device_.set_configuration(1), EBUSY) << "an interface is claimed";
        EXPECT_EQ(device_.release(client_, 0) | device_.release(client_, 1), 0);
        EXPECT_EQ(device_.set_configuration(2), EINVAL);
        EXPECT_EQ(device_.set_configuration(1), 0);
    }

private:
    /// Returns 0 with the bytes that were transferred, or EAGAIN while it is in flight.
    int transfer(std::uint8_t endpoint, std::string& bytes) {
        Urb urb;
        urb.client = client_;
        urb.handle = ++handle_;
        urb.control = endpoint == 0;
        urb.endpoint = endpoint;
        urb.buffer = reinterpret_cast<std::uint8_t*>(bytes.data());
        urb.length = bytes.size();
        EXPECT_EQ(device_.submit(std::move(urb)), 0);
        std::optional<Urb> done;
        const int pending = device_.reap(client_, done);
        if (pending == 0) {
            EXPECT_EQ(done->status, 0);
            bytes.resize(done->actual);
        }
        return pending;
    }

    SimDevice& device_;
    ClientId client_;
    std::uint64_t handle_ = 0;
};

TEST(Bus, WhatADeviceHasNotSentOutlivesTheProgramButNoReset) {
    const std::string command = Host::framed(Host::command(1, 0, "bio_get_version"));
    const std::string status = R"({"metadata":{"version":1,"type":"status"}})";
    const std::string push = R"({"metadata":{"version":1,"type":"file_push"},)"
                             R"("file_push":{"size":300,"adler32":1,"job_id":""}})";
    const std::string set_configuration("\0\x09\1\0\0\0\0\0", 8);
    const struct {
        const char* what;
        std::function<void(Program&)> end;
        bool kept;
    } cases[] = {
        {"leaves", [](Program&) {}, true},
        {"reset", [](Program& program) { program.reset(); }, false},
        {"configuration", [](Program& program) { program.select_configuration(); }, false},
        {"request", [&](Program& program) { program.send(0, set_configuration); }, false},
    };
    for (const auto& c : cases) {
        SimDevice device({1, 2},
                         std::make_unique<Controller>(DeviceNature{"S", kApplicationProduct, 1.0}),
                         [] {});
        std::string received;
        {
            Program program(device);
            program.send(kMessageOut, command + command.substr(0, 30));
            program.send(kJobOut, status + push + "abc");
            received = program.read(kMessageIn, kMaxPacket);
            c.end(program);
        }
        Program next(device);
        if (c.kept) {
            const std::string rest = next.read(kMessageIn);
            EXPECT_EQ(Host::messages(received + rest).size(), 1U) << c.what;
            EXPECT_EQ(Json::parse(next.read(kJobIn))["error"], 0) << c.what;
            next.send(kMessageOut, command.substr(30));
            EXPECT_EQ(Host::messages(next.read(kMessageIn)).size(), 1U) << c.what;
        } else {
            EXPECT_EQ(next.read(kMessageIn) + next.read(kJobIn), "") << c.what;
            next.send(kMessageOut, command);
            EXPECT_EQ(Host::messages(next.read(kMessageIn)).size(), 1U) << c.what;
            next.send(kJobOut, status);
            EXPECT_EQ(Json::parse(next.read(kJobIn))["error"], 1) << "the push was cut off";
        }
        EXPECT_EQ(device.stats()["complaints"]["count"], 0) << c.what;
    }
}

}  // namespace
}  // namespace jovusim::test
