// SPDX-License-Identifier: Apache-2.0

// The bus: faults on demand, and what outlives the program that has a device open.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bus/sim_device.h"
#include "bus/testbed_record.h"
#include "device/capture.h"
#include "device/descriptors.h"
#include "device/file_descriptor.h"
#include "firmware_host.h"
#include "support/job_file.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

TEST(FaultTable, FaultsHappenInTheirOrderAndNumber) {
    FaultTable table;
    table.add(BusFault::status, kMessageOut, 1, 1, 1);
    table.add(BusFault::status, kMessageOut, 2, 2, 1);
    table.add(BusFault::status, kMessageOut, 3, kAlways, 0);
    table.add(BusFault::submit, kMessageOut, EPERM, 0, 0);
    table.add(BusFault::never, kMessageOut, 0, 1, 0);
    for (const int taken : {0, 1, 0, 2, 2, 3, 3})
        EXPECT_EQ(table.take(BusFault::status, kMessageOut), taken);
    EXPECT_EQ(table.take(BusFault::status, kJobOut), 0) << "another endpoint";
    EXPECT_EQ(table.take(BusFault::submit, kMessageOut), 0) << "no time";
    EXPECT_EQ(table.take(BusFault::never, kMessageOut), 1);
    table.unplug_after(kJobOut, 5);
    EXPECT_EQ(table.count_out(kJobOut, 5), 5U);
    table.unplug_after(kJobOut, 0);
    table.clear();
    EXPECT_EQ(table.take(BusFault::status, kMessageOut), 0);
    EXPECT_FALSE(table.count_out(kJobOut, 1));
}

TEST(Descriptors, SayWhatTheDeviceIs) {
    const UsbIdentity identity = {
        0x1234,
        0xABCD,
        0x0102,
        "M",
        "P\\",
        "S",
        {{0xFF, 1, 2, {{0x81, 64}, {2, 512}}, "n", "\3!?"}, {0xFE, 0, 0, {}}}};
    EXPECT_EQ(testbed_record(identity, {3, 14}),
              "P: /devices/usb3/3-14\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n"
              "E: DEVNAME=/dev/bus/usb/003/014\nE: BUSNUM=3\nE: DEVNUM=14\nA: busnum=3\\n\n"
              "A: devnum=14\\n\nA: bConfigurationValue=1\\n\nA: speed=12\\n\nA: idVendor=1234\\n\n"
              "A: idProduct=abcd\\n\nA: manufacturer=M\\n\nA: product=P\\\\\\n\nA: serial=S\\n\n"
              "H: descriptors=120100020000004034"
              "12cdab020101020301"
              "09022c000201008032"
              "0904000002ff010204"
              "03213f"
              "07058102400000"
              "07050202000200"
              "0904010000fe000000\n");
    EXPECT_EQ(find_descriptor(identity, UsbSpeed::full, 3, 4), std::string({4, 3, 'n', 0}));
    const std::array<std::uint8_t, 2> missing[] = {{3, 5}, {3, 6}, {1, 1}, {2, 1}, {4, 0}};
    for (const auto& [type, index] : missing)
        EXPECT_FALSE(find_descriptor(identity, UsbSpeed::full, type, index))
            << int{type} << " " << int{index};
    EXPECT_EQ(find_descriptor(identity, UsbSpeed::full, 1, 0).value() +
                  find_descriptor(identity, UsbSpeed::full, 2, 0).value(),
              sysfs_descriptors(identity));
}

TEST(LocalSocket, TakesNoPathThatIsCutOff) {
    const std::string longest(sizeof(sockaddr_un::sun_path) - 1, 'x');
    EXPECT_EQ(local_address(longest).sun_path, longest);
    EXPECT_THROW(local_address(longest + "x"), std::system_error);
}

/// A program that has a device open.
class Program {
public:
    explicit Program(SimDevice& device) : device_(device), client_(device.open()) {}
    ~Program() { device_.close(client_); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void send(std::uint8_t endpoint, std::string bytes) { EXPECT_EQ(transfer(endpoint, bytes), 0); }

    /// Begins a transfer and returns its handle. @param bytes outlive the transfer
    std::uint64_t begin(std::uint8_t endpoint, std::string& bytes) {
        Urb urb;
        urb.client = client_;
        urb.handle = ++handle_;
        urb.control = endpoint == 0;
        urb.endpoint = endpoint;
        urb.buffer = reinterpret_cast<std::uint8_t*>(bytes.data());
        urb.length = bytes.size();
        EXPECT_EQ(device_.submit(std::move(urb)), 0);
        return handle_;
    }
    std::optional<Urb> reap() {
        std::optional<Urb> urb;
        const int error = device_.reap(client_, urb);
        EXPECT_EQ(error, urb ? 0 : EAGAIN);
        return urb;
    }
    int discard(std::uint64_t handle) { return device_.discard(client_, handle); }
    int claim(unsigned interface) { return device_.claim(client_, interface); }
    int release(unsigned interface) { return device_.release(client_, interface); }

    /// The data stage of a control request to the host, or "stall".
    std::string ask(unsigned type, unsigned request, unsigned value, unsigned length) {
        std::string bytes;
        for (const unsigned byte : {type, request, value & 0xFFU, value >> 8U, 0U, 0U, length, 0U})
            bytes += static_cast<char>(byte);
        bytes.resize(8U + length);
        begin(0, bytes);
        const Urb urb = reap().value();
        EXPECT_EQ(urb.actual != 0 ? 0 : urb.status, urb.status);
        return urb.status == 0 ? bytes.substr(8, urb.actual) : "stall";
    }

    /// What the device sends up to its next short packet, at most @p size bytes.
    std::string read(std::uint8_t endpoint, std::size_t size = 1U << 16U) {
        std::string bytes(size, '\0');
        if (transfer(endpoint, bytes) == 0) return bytes;
        EXPECT_EQ(discard(handle_), 0);
        EXPECT_EQ(reap()->status, -ENOENT);
        return "";
    }

    void reset() {
        std::string bytes(1U << 16U, '\0');
        EXPECT_EQ(transfer(kJobIn, bytes), 0) << "a report is there";
        EXPECT_EQ(transfer(kJobIn, bytes), EAGAIN);
        EXPECT_EQ(device_.reset(), 0);
        EXPECT_EQ(reap()->status, -ENOENT);
        EXPECT_EQ(device_.stats()["endpoints"]["83"]["in_flight"], 0);
        EXPECT_EQ(release(1), EINVAL) << "the reset has taken it away";
    }

    void select_configuration() {
        EXPECT_EQ(device_.set_configuration(1), EBUSY) << "an interface is claimed";
        EXPECT_EQ(release(0) | release(1), 0);
        EXPECT_EQ(device_.set_configuration(2), EINVAL);
        EXPECT_EQ(device_.set_configuration(1), 0);
    }

private:
    /// Returns 0 with the bytes that were transferred, or EAGAIN while it is in flight.
    int transfer(std::uint8_t endpoint, std::string& bytes) {
        begin(endpoint, bytes);
        const std::optional<Urb> done = reap();
        if (!done) return EAGAIN;
        EXPECT_EQ(done->status, 0);
        bytes.resize(done->actual);
        return 0;
    }

    SimDevice& device_;
    ClientId client_;
    std::uint64_t handle_ = 0;
};

std::unique_ptr<Controller> controller() {
    return std::make_unique<Controller>(DeviceConfig{"S", kApplicationProduct, 1.0});
}

TEST(Bus, AnswersStandardRequestsItself) {
    SimDevice device({1, 2}, controller(), [] {});
    Program program(device);
    const std::string descriptor = find_descriptor(device.identity(), UsbSpeed::full, 1, 0).value();
    const std::tuple<unsigned, unsigned, unsigned, unsigned, std::string> cases[] = {
        {0x80, 6, 0x0100, 18, descriptor},
        {0x80, 6, 0x0100, 200, descriptor},
        {0x80, 6, 0x0100, 8, descriptor.substr(0, 8)},
        {0x80, 6, 0x0300, 9, std::string({4, 3, 9, 4})},
        {0x80, 6, 0x0301, 9, std::string({10, 3, 'J', 0, 'o', 0, 'V', 0, 'u'})},
        {0x80, 6, 0x0303, 9, std::string({4, 3, 'S', 0})},
        {0x80, 6, 0x0309, 9, "stall"},
        {0x00, 6, 0x0100, 0, "stall"},
        {0x80, 0, 0, 2, std::string({0, 0})},
        {0x80, 8, 0, 1, std::string({1})},
        {0x80, 9, 1, 0, "stall"},
        {0x00, 9, 2, 0, "stall"},
        {0x00, 9, 1, 0, ""},
        {0x80, 77, 0, 1, "stall"},
        {0xA1, 3, 0, 6, "stall"},
    };
    for (const auto& [type, request, value, length, response] : cases)
        EXPECT_EQ(program.ask(type, request, value, length), response) << request << " " << value;
}

TEST(Bus, InterfacesAndTransfersBelongToOneProgram) {
    SimDevice device({1, 2}, controller(), [] {});
    Program first(device);
    Program second(device);
    EXPECT_EQ(first.claim(2), ENOENT);
    EXPECT_EQ(first.claim(0) | second.claim(1) | first.claim(0), 0);
    EXPECT_EQ(second.claim(0), kContended);
    EXPECT_EQ(second.release(0), EINVAL);
    std::string buffers[4] = {std::string(64, 0), std::string(64, 0), std::string(64, 0),
                              std::string(10, 0)};
    device.with_faults([](FaultTable& faults) { faults.add(BusFault::never, kJobIn, 0, 1, 0); });
    const std::uint64_t stuck = second.begin(kJobIn, buffers[0]);
    EXPECT_EQ(first.begin(kMessageIn, buffers[1]), stuck) << "handles are each program's own";
    second.begin(kJobIn, buffers[2]);
    EXPECT_EQ(first.discard(stuck + 1), EINVAL);
    EXPECT_EQ(second.discard(stuck), 0);
    EXPECT_EQ(first.reap().has_value(), false);
    EXPECT_EQ(second.reap()->status, -ENOENT);
    EXPECT_EQ(second.discard(stuck), EINVAL);
    EXPECT_EQ(second.release(1), 0);
    EXPECT_EQ(second.reap()->status, -ENOENT);
    EXPECT_EQ(device.stats()["endpoints"]["81"]["in_flight"], 1) << "of the other interface";
    EXPECT_EQ(first.discard(stuck), 0);
    EXPECT_EQ(first.reap()->handle, stuck);
    first.begin(kMessageIn, buffers[3]);
    first.send(kMessageOut, framed(Host::command(1, 0, "bio_get_version")));
    const Urb cut = first.reap().value();
    EXPECT_EQ(cut.status, -EOVERFLOW);
    EXPECT_EQ(cut.actual, 10U);
    device.with_faults([](FaultTable& faults) { faults.unplug_after(kJobOut, 67); });
    for (const std::uint8_t endpoint : {kMessageOut, kJobOut}) {
        (endpoint == kJobOut ? second : first).begin(endpoint, buffers[0]);
        EXPECT_EQ((endpoint == kJobOut ? second : first).reap()->status, 0);
    }
    second.begin(kJobOut, buffers[0]);
    const Urb last = second.reap().value();
    EXPECT_EQ(last.status, -ESHUTDOWN) << "it ends at the unplug, not later";
    EXPECT_EQ(last.actual, 3U);
}

TEST(Bus, WhatADeviceHasNotSentOutlivesTheProgramButNoReset) {
    const std::string command = framed(Host::command(1, 0, "bio_get_version"));
    const std::string status = R"({"metadata":{"version":1,"type":"status"}})";
    const std::string push = R"({"metadata":{"version":1,"type":"file_push"},)"
                             R"("file_push":{"size":300,"adler32":1,"job_id":""}})";
    for (const std::string end : {"leave", "reset", "configuration", "request"}) {
        SimDevice device({1, 2}, controller(), [] {});
        std::string received;
        {
            Program program(device);
            program.send(kMessageOut, command + command.substr(0, 30));
            program.send(kJobOut, status + push + "abc");
            received = program.read(kMessageIn, kMaxPacket);
            if (end == "reset") program.reset();
            if (end == "configuration") program.select_configuration();
            if (end == "request") program.ask(0, 9, 1, 0);
        }
        Program next(device);
        if (end == "leave") {
            const std::string rest = next.read(kMessageIn);
            EXPECT_EQ(Host::messages(received + rest).size(), 1U) << end;
            EXPECT_EQ(Json::parse(next.read(kJobIn))["error"], 0) << end;
            next.send(kMessageOut, command.substr(30));
            EXPECT_EQ(Host::messages(next.read(kMessageIn)).size(), 1U) << end;
        } else {
            EXPECT_EQ(next.read(kMessageIn) + next.read(kJobIn), "") << end;
            next.send(kMessageOut, command);
            EXPECT_EQ(Host::messages(next.read(kMessageIn)).size(), 1U) << end;
            next.send(kJobOut, status);
            EXPECT_EQ(Json::parse(next.read(kJobIn))["error"], 1) << "the push was cut off";
        }
        EXPECT_EQ(device.stats()["protocol_violations"]["count"], 0) << end;
    }
}

/// The packets of a capture: event, number of the transfer, type, endpoint, bus and device, setup
/// and data flags, status, length, data. The offsets are those of usbmon's header.
std::vector<std::string> packets_of(const std::string& capture) {
    std::vector<std::string> packets;
    std::size_t at = 24 + 16;
    for (std::size_t size = 0; at + 64 <= capture.size(); at += 64 + size + 16) {
        const auto* const header = reinterpret_cast<const unsigned char*>(capture.data() + at);
        int status = 0, length = 0;
        std::memcpy(&status, header + 28, sizeof status);
        std::memcpy(&length, header + 32, sizeof length);
        std::memcpy(&size, header + 36, 4);
        char text[80];
        std::snprintf(text, sizeof text, "%c%d %d %02x %d:%d %02x%02x %d %d ", header[8], header[0],
                      header[9], header[10], header[12], header[11], header[14], header[15], status,
                      length);
        packets.push_back(text + capture.substr(at + 64, size));
        EXPECT_EQ(capture.substr(at - 16, 4), capture.substr(at + 16, 4)) << "both times";
    }
    EXPECT_EQ(at, capture.size() + 16) << "no part of a packet";
    return packets;
}

TEST(Capture, ShowsEachTransferTwiceAsUsbmonDoes) {
    const ::test::TemporaryFile file("bus.pcap", "an old capture");
    BusCapture capture(file.path());
    const auto listener = [&](UrbEvent event, const Urb& urb) {
        capture.record({3, 127}, event, urb);
    };
    std::string in(64, '\0'), out = "ab", stuck = "c";
    std::string get("\x80\x06\0\x01\0\0\x02\0??", 10);
    {
        SimDevice device(
            {3, 127}, controller(), [] {}, listener);
        device.with_faults([](FaultTable& faults) {
            faults.add(BusFault::never, kJobOut, 0, 1, 0);
            faults.add(BusFault::submit, kMessageOut, ENOMEM, 1, 1);
        });
        Program program(device);
        program.begin(kMessageIn, in);
        program.send(kMessageOut, out);
        program.begin(kJobOut, stuck);
        program.begin(0, get);
        Urb refused;
        refused.client = 1;
        refused.endpoint = kMessageOut;
        refused.buffer = reinterpret_cast<std::uint8_t*>(out.data());
        refused.length = 2;
        EXPECT_EQ(device.submit(refused), ENOMEM);
        device.with_controller([](Controller& firmware, Millis now) {
            firmware.send_raw(Channel::message, "yes", now);
        });
    }
    EXPECT_EQ(packets_of(::test::content_of(file.path())), (std::vector<std::string>{
                                                               "S1 3 81 3:127 2d3c -115 64 ",
                                                               "S2 3 02 3:127 2d00 -115 2 ab",
                                                               "C2 3 02 3:127 2d3e 0 2 ",
                                                               "S3 3 04 3:127 2d00 -115 1 c",
                                                               "S4 2 80 3:127 003c -115 2 ",
                                                               "C4 2 80 3:127 2d00 0 2 \x12\x01",
                                                               "S5 3 02 3:127 2d00 -115 2 ab",
                                                               "E5 3 02 3:127 2d45 -12 0 ",
                                                               "C1 3 81 3:127 2d00 0 3 yes",
                                                               "C3 3 04 3:127 2d3e -2 0 ",
                                                           }));
}

TEST(Capture, EndsAtItsLimitWithAWholePacket) {
    const ::test::TemporaryFile file("bus.pcap", "");
    BusCapture capture(file.path(), 24 + 2 * (16 + 64) + 1);
    std::string byte = "x";
    Urb urb;
    urb.buffer = reinterpret_cast<std::uint8_t*>(byte.data());
    urb.length = 1;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(capture.fault().empty(), i < 2);
        capture.record({1, 2}, UrbEvent::submitted, urb);
    }
    EXPECT_EQ(packets_of(::test::content_of(file.path())).size(), 1U);
    EXPECT_THROW(BusCapture("/dev/full"), std::system_error);
}

}  // namespace
}  // namespace jovusim::test
