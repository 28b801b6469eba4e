/// @file
/// Commands and events over the real libusb, and what may be called from inside a callback.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::complaints;
using test::error_of;
using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::requests;
using test::sim;
using test::stats;
using test::string;

class Exchange : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(device)); }

    void fault(const std::string& what) const { sim("fault " + name(device) + " " + what); }

    JovuDeviceAddress device = plug();
    RecordingClient client;
};

TEST_F(Exchange, AMissingResponseTimesOutAndTheLinkLives) {
    fault("silent");
    const auto begin = std::chrono::steady_clock::now();
    client.gcode_process_command(device, string("M105"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(14900));
    EXPECT_EQ(JovuTransport::last_send_error(),
              "Transport Error - Waiting for response to request timed out.");
    client.gcode_process_command(device, string("M105"));
    EXPECT_EQ(JovuTransport::last_send_error(), "");
    EXPECT_EQ(complaints(device), 0);
}

TEST_F(Exchange, SplitAnswersAndFloodsAreRead) {
    const auto received = [&] { return stats(device)["endpoints"]["81"]; };
    fault("split 1");
    EXPECT_TRUE(client.answers(device));
    EXPECT_EQ(received()["transfers"], received()["bytes"]) << "a transfer for each byte";
    fault("clear");
    fault("garbage message 5000");
    EXPECT_TRUE(client.answers(device));
    // The answer stands behind both floods, some 3,100 transfers, and still has to come in time.
    fault("flood message 500");
    fault("flood job 500");
    EXPECT_TRUE(client.answers(device));
    EXPECT_EQ(client.texts().size(), 500U);
    sim("event " + name(device) + " after the flood");
    EXPECT_TRUE(client.wait_text("after the flood"));
    EXPECT_TRUE(eventually([&] { return client.statuses().size() == 500; }));
}

constexpr const char* kBusy = "Send failed - libusb error: -6";

/// While another thread is in the middle of an exchange, and while one is not: the callback's calls
/// must come back at once either way.
class InACallback : public testing::TestWithParam<bool> {};

TEST_P(InACallback, NothingBlocks) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    std::promise<void> done;
    std::vector<std::string> seen;
    client.on_debug = [&](JovuDeviceAddress address, const std::string& message) {
        if (message != "now") return;
        client.bio_get_version(address);
        seen.push_back(JovuTransport::last_send_error());
        client.bio_get_version({9, 9});
        seen.push_back(JovuTransport::last_send_error());
        seen.push_back(error_of([&] { client.RequestStatus(address); }));
        seen.push_back(error_of([&] { client.RequestStatus({9, 9}); }));
        seen.push_back(std::to_string(client.list_connected().size()));
        seen.push_back(std::to_string(client.list_attached().size()));
        seen.push_back(error_of([&] { client.close({9, 9}); }));
        seen.push_back(error_of([&] { client.close(address); }));
        seen.push_back(error_of([&] { client.close(address); }));
        seen.push_back(error_of([&] { client.RequestStatus(address); }));
        done.set_value();
    };
    ASSERT_TRUE(client.wait_connected(device));
    std::thread sender;
    std::string sender_reason;
    if (GetParam()) {
        sim("fault " + name(device) + " silent");
        sender = std::thread([&] {
            client.gcode_process_command(device, string("G28"));
            sender_reason = JovuTransport::last_send_error();
        });
        ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    }
    const auto begin = std::chrono::steady_clock::now();
    sim("event " + name(device) + " now");
    ASSERT_EQ(done.get_future().wait_for(test::kPatience), std::future_status::ready);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    const std::vector<std::string> expected{kBusy,
                                            "Transport Error - Device has been disconnected.",
                                            kBusy,
                                            "Send failed - Device no longer connected.",
                                            "1",
                                            "1",
                                            "Close failed - Device no longer connected.",
                                            "",
                                            "Close failed - Device no longer connected.",
                                            "Send failed - Device no longer connected."};
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(client.wait_disconnected(device)) << "the watcher carries the close out";
    if (sender.joinable()) {
        sender.join();
        EXPECT_EQ(sender_reason, "Transport Error - No response received.");
    }
}

INSTANTIATE_TEST_SUITE_P(Exchange, InACallback, testing::Bool(), [](const auto& parameter) {
    return parameter.param ? "WhileASenderWaits" : "Alone";
});

TEST(InANoticesCallback, CommandsAndListingsWork) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    std::promise<bool> answered;
    ASSERT_TRUE(client.wait_connected(device));
    client.on_connected = [&](JovuDeviceAddress address) {
        answered.set_value(client.answers(address));
    };
    auto result = answered.get_future();
    client.on_disconnected = [&](JovuDeviceAddress address) {
        EXPECT_FALSE(client.answers(address));
        EXPECT_TRUE(client.list_attached().empty() && client.list_connected().size() < 2);
    };
    sim("unplug " + name(device));
    ASSERT_TRUE(client.wait_disconnected(device));
    plug(name(device));
    ASSERT_EQ(result.wait_for(test::kPatience), std::future_status::ready);
    EXPECT_TRUE(result.get());
}

}  // namespace
