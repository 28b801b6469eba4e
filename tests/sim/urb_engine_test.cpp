// Transfers in flight on the simulated bus.
#include "bus/urb_engine.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>

#include "firmware/controller.h"

namespace jovusim::test {
namespace {

/// Endpoints whose packets the test decides.
class ScriptedFunction final : public UsbFunction {
public:
    const UsbIdentity& identity() const override { return identity_; }
    void receive(std::uint8_t endpoint, const std::uint8_t* data, std::size_t size,
                 Millis) override {
        received[endpoint].append(reinterpret_cast<const char*>(data), size);
    }
    std::optional<std::string> next_packet(std::uint8_t endpoint, Millis) override {
        auto& queue = packets[endpoint];
        if (queue.empty()) return std::nullopt;
        std::string packet = queue.front();
        queue.pop_front();
        return packet;
    }
    std::optional<Millis> next_due() const override { return std::nullopt; }
    void host_left() override {}
    Json stats(Millis) override { return {}; }
    std::vector<std::string> take_complaints() override { return {}; }

    std::map<std::uint8_t, std::string> received;
    std::map<std::uint8_t, std::deque<std::string>> packets;

private:
    const UsbIdentity identity_{
        0x7A1C,
        2,
        0x0100,
        "Maker",
        "Product",
        "Serial",
        {{0xFF, 0, 0, {{0x81, 64}, {0x02, 64}}}, {0xFF, 0, 0, {{0x83, 64}, {0x04, 64}}}}};
};

class UrbEngineTest : public ::testing::Test {
protected:
    int submit(std::uint8_t endpoint, std::uint64_t handle, std::string content,
               ClientId client = 1) {
        auto memory = std::make_shared<std::string>(std::move(content));
        Urb urb;
        urb.client = client;
        urb.handle = handle;
        urb.control = endpoint == 0;
        urb.endpoint = endpoint;
        urb.buffer = reinterpret_cast<std::uint8_t*>(memory->data());
        urb.length = memory->size();
        urb.memory = memory;
        return engine_.submit(std::move(urb), 0);
    }
    int submit_in(std::uint8_t endpoint, std::uint64_t handle, std::size_t room,
                  ClientId client = 1) {
        return submit(endpoint, handle, std::string(room, '.'), client);
    }

    /// "HANDLE:STATUS:DATA" of the next finished transfer, or "none".
    std::string reap(ClientId client = 1) {
        const auto urb = engine_.reap(client);
        if (!urb) return "none";
        const auto* begin = reinterpret_cast<const char*>(urb->buffer);
        return std::to_string(urb->handle) + ":" + std::to_string(urb->status) + ":" +
               std::string(begin, begin + urb->actual);
    }

    ScriptedFunction function_;
    FaultBoard faults_;
    UrbEngine engine_{function_, faults_};
    const std::string full_ = std::string(64, 'f');
};

TEST_F(UrbEngineTest, AShortPacketOrAFullBufferEndsAnInTransfer) {
    function_.packets[0x81] = {"ab", full_, full_, "c", full_, ""};
    submit_in(0x81, 1, 64);
    submit_in(0x81, 2, 64);
    submit_in(0x81, 3, 512);
    submit_in(0x81, 4, 512);
    EXPECT_EQ(reap(), "1:0:ab");
    EXPECT_EQ(reap(), "2:0:" + full_);
    EXPECT_EQ(reap(), "3:0:" + full_ + "c");
    EXPECT_EQ(reap(), "4:0:" + full_);
    EXPECT_EQ(reap(), "none");
}

TEST_F(UrbEngineTest, APacketThatDoesNotFitOverflows) {
    function_.packets[0x81] = {"0123456789", "next"};
    submit_in(0x81, 1, 4);
    submit_in(0x81, 2, 4);
    EXPECT_EQ(reap(), "1:" + std::to_string(-EOVERFLOW) + ":0123");
    EXPECT_EQ(reap(), "2:0:next");
}

TEST_F(UrbEngineTest, WaitsForPacketsInTheOrderOfSubmission) {
    submit_in(0x81, 1, 64);
    submit_in(0x83, 2, 64);
    submit_in(0x81, 3, 64);
    EXPECT_EQ(reap(), "none");
    EXPECT_FALSE(engine_.has_finished());
    function_.packets[0x81] = {"x", "y"};
    engine_.pump(0);
    EXPECT_TRUE(engine_.has_finished());
    EXPECT_EQ(reap(), "1:0:x");
    EXPECT_EQ(reap(), "3:0:y");
    EXPECT_EQ(engine_.stats()["83"]["in_flight"], 1);
}

TEST_F(UrbEngineTest, OutDataReachesTheFunctionAsItComes) {
    EXPECT_EQ(submit(0x04, 1, std::string(5120, 'z')), 0);
    EXPECT_EQ(submit(0x04, 2, ""), 0);
    EXPECT_EQ(function_.received[0x04], std::string(5120, 'z'));
    EXPECT_EQ(reap(), "1:0:" + std::string(5120, 'z'));
    EXPECT_EQ(reap(), "2:0:");
    EXPECT_EQ(submit(0x05, 3, "x"), ENOENT);
}

TEST_F(UrbEngineTest, DiscardsOnlyWhatIsInFlightAndOnesOwn) {
    submit_in(0x81, 7, 64, 1);
    submit_in(0x81, 7, 64, 2);
    EXPECT_EQ(engine_.discard(1, 8), EINVAL);
    EXPECT_EQ(engine_.discard(2, 7), 0);
    EXPECT_EQ(engine_.discard(2, 7), EINVAL);
    EXPECT_EQ(reap(1), "none");
    EXPECT_EQ(reap(2), "7:" + std::to_string(-ENOENT) + ":");
    function_.packets[0x81] = {"x"};
    engine_.pump(0);
    EXPECT_EQ(reap(1), "7:0:x");
}

TEST_F(UrbEngineTest, ADeadClientTakesNothingWithIt) {
    submit_in(0x81, 1, 64, 1);
    submit(0x02, 2, "x", 1);
    submit_in(0x81, 3, 64, 2);
    engine_.forget(1);
    function_.packets[0x81] = {"for the living"};
    engine_.pump(0);
    EXPECT_EQ(reap(1), "none");
    EXPECT_EQ(reap(2), "3:0:for the living");
}

TEST_F(UrbEngineTest, ReleasingAnInterfaceEndsItsTransfers) {
    submit_in(0x81, 1, 64, 1);
    submit_in(0x83, 2, 64, 1);
    submit_in(0x81, 3, 64, 2);
    engine_.discard_interface(1, 0);
    EXPECT_EQ(reap(1), "1:" + std::to_string(-ENOENT) + ":");
    EXPECT_EQ(reap(1), "none");
    EXPECT_EQ(reap(2), "none");
}

TEST_F(UrbEngineTest, ShuttingDownEndsEverythingInFlight) {
    faults_.add(BusFault::never, 0x02, 0, 1, 0);
    submit(0x02, 1, "lost");
    submit_in(0x83, 2, 64);
    engine_.shut_down(-ESHUTDOWN);
    EXPECT_EQ(reap(), "1:" + std::to_string(-ESHUTDOWN) + ":");
    EXPECT_EQ(reap(), "2:" + std::to_string(-ESHUTDOWN) + ":");
    EXPECT_EQ(function_.received[0x02], "");
}

TEST_F(UrbEngineTest, FaultsHappenWhenTheyAreDue) {
    faults_.add(BusFault::submit, 0x02, EIO, 2, 1);
    faults_.add(BusFault::submit, 0x02, ENOMEM, 1, 0);
    faults_.add(BusFault::status, 0x04, EPIPE, kAlways, 0);
    const int expected[] = {0, EIO, EIO, ENOMEM, 0};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(submit(0x02, i, "x"), expected[i]) << i;
    }
    EXPECT_EQ(reap(), "0:0:x");
    EXPECT_EQ(reap(), "4:0:x");
    for (std::uint64_t i = 0; i < 3; ++i) {
        submit(0x04, i, "y");
        EXPECT_EQ(reap(), std::to_string(i) + ":" + std::to_string(-EPIPE) + ":");
    }
    faults_.clear();
    submit(0x04, 9, "y");
    EXPECT_EQ(reap(), "9:0:y");
    EXPECT_EQ(function_.received[0x04], "y");
}

TEST_F(UrbEngineTest, AStuckTransferCanBeDiscarded) {
    faults_.add(BusFault::never, 0x81, 0, 1, 0);
    submit_in(0x81, 1, 64);
    submit_in(0x81, 2, 64);
    function_.packets[0x81] = {"x"};
    engine_.pump(0);
    EXPECT_EQ(reap(), "2:0:x");
    EXPECT_EQ(engine_.discard(1, 1), 0);
    EXPECT_EQ(reap(), "1:" + std::to_string(-ENOENT) + ":");
}

TEST_F(UrbEngineTest, UnplugsBehindAByteInTheMiddleOfATransfer) {
    faults_.unplug_after(0x04, 150);
    submit(0x04, 1, std::string(100, 'a'));
    EXPECT_FALSE(engine_.wants_unplug());
    submit(0x02, 2, std::string(100, 'm'));  // another endpoint does not count
    EXPECT_FALSE(engine_.wants_unplug());
    submit(0x04, 3, std::string(100, 'b'));
    EXPECT_TRUE(engine_.wants_unplug());
    EXPECT_EQ(function_.received[0x04], std::string(100, 'a') + std::string(50, 'b'));
    engine_.shut_down(-ESHUTDOWN);
    reap();
    reap();
    EXPECT_EQ(reap(), "3:" + std::to_string(-ESHUTDOWN) + ":" + std::string(50, 'b'));
}

TEST_F(UrbEngineTest, AnswersStandardRequestsAndStallsOnOthers) {
    const auto control = [this](std::string setup, std::size_t room) {
        submit(0, 1, setup + std::string(room, '.'));
        const auto urb = engine_.reap(1);
        if (urb->status != 0) return "status " + std::to_string(urb->status);
        const auto* begin = reinterpret_cast<const char*>(urb->buffer) + setup.size();
        return std::string(begin, begin + urb->actual);
    };
    const std::string device = control({"\x80\x06\x00\x01\x00\x00\x12\x00", 8}, 18);
    EXPECT_EQ(device, std::string("\x12\x01\x00\x02\x00\x00\x00\x40\x1c\x7a\x02\x00\x00\x01"
                                  "\x01\x02\x03\x01",
                                  18));
    const std::string config = control({"\x80\x06\x00\x02\x00\x00\xff\x00", 8}, 255);
    ASSERT_EQ(config.size(), 55U);
    EXPECT_EQ(config.substr(0, 5), std::string("\x09\x02\x37\x00\x02", 5));
    EXPECT_EQ(control({"\x80\x06\x00\x02\x00\x00\x09\x00", 8}, 9), config.substr(0, 9));
    EXPECT_EQ(control({"\x80\x06\x03\x03\x09\x04\xff\x00", 8}, 255),
              std::string("\x0e\x03S\0e\0r\0i\0a\0l\0", 14));
    const std::string stalled = "status " + std::to_string(-EPIPE);
    EXPECT_EQ(control({"\x80\x06\x04\x03\x09\x04\xff\x00", 8}, 255), stalled);  // no such string
    EXPECT_EQ(control({"\xc0\x01\x00\x00\x00\x00\x01\x00", 8}, 1), stalled);    // vendor request
    EXPECT_EQ(control("short", 0), stalled);
}

}  // namespace
}  // namespace jovusim::test
