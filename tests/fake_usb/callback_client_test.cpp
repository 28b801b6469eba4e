// SPDX-License-Identifier: Apache-2.0

/// @file
/// The client by composition, and the log handler that receives what goes wrong in it.
#include "jovu/callback_client.h"

#include "fake_usb/backend_fixture.h"
#include "jovu/log.h"

namespace test {
namespace {

using CallbackClientTest = BackendTest;

TEST_F(CallbackClientTest, CallsFromItsStartToItsStopAndGoesOnWhenACallbackThrows) {
    RecordingClient other;
    const auto log = [this](JovuLogLevel level, std::optional<JovuDeviceAddress> about,
                            const std::string& text) {
        journal.add(std::to_string(static_cast<int>(level)) + (about == kAddress ? "! " : "- ") +
                    text);
    };
    jovu_set_log_handler(log);
    JovuCallbackClient client;
    JovuCallbacks calls;
    calls.connected = [&](JovuDeviceAddress) {
        journal.add("+" + std::to_string(client.client().list_connected().size()));
        throw 1;
    };
    calls.disconnected = [&](JovuDeviceAddress) { journal.add("-"); };
    calls.unavailable = [&](JovuDeviceAddress, const JovuDeviceInfo& info) {
        journal.add(jovu_state_name(info.state));
    };
    calls.debug_event = [&](JovuDeviceAddress, const std::string& text) {
        journal.add("debug " + text);
        throw std::runtime_error("odd");
    };
    calls.servo_trace_event = [&](JovuDeviceAddress, const servo_trace_msg& sample) {
        journal.add("trace " + std::to_string(sample.pos));
    };
    calls.status_report = [&](JovuDeviceAddress, const JovuJobInterface::StatusMsg& status) {
        journal.add("status " + status.state);
    };
    calls.job_data = [&](JovuDeviceAddress, std::string_view json) {
        journal.add("data " + std::to_string(json.size()));
    };
    client.stop();
    EXPECT_EQ(error_of([&] { client.client(); }), "The client has not been started.");
    client.start(calls);
    EXPECT_EQ(error_of([&] { client.start(calls); }), "The client has been started already.");
    fake_usb::script(fake_usb::Call::open, {LIBUSB_ERROR_ACCESS});
    libusb_device* const device = fake_usb::plug(1, 5);
    ASSERT_TRUE(
        journal.wait("1! JovuCallbackClient: The callback connected has thrown - UNKNOWN."));
    const auto event = [&](const std::string& name, const std::string& argument) {
        send_frame(device, R"({"transport":{"attrs":[],"id":1},"data":{"event":{"name":")" + name +
                               R"(","args":{"x":)" + argument + "}}}}");
    };
    event("debug_event", "[72,105,0]");
    event("servo_dc_trace_event",
          R"({"servo_name":0,"servo_state":0,"int_cnt":0,"pos_cmd":0,"pos":7,"pwm":0,)"
          R"("padout_dist":0})");
    const std::string report = R"({"metadata":{"type":"status"},"status":{"state":"idle"}})";
    EXPECT_TRUE(fake_usb::complete(device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, report));
    client.stop();
    send_event(device);
    fake_usb::unplug(device);
    EXPECT_TRUE(other.wait_disconnected(kAddress));
    EXPECT_THAT(journal.entries(),
                testing::ElementsAre(
                    "not_permitted", "+1",
                    "1! JovuCallbackClient: The callback connected has thrown - UNKNOWN.",
                    "debug Hi", "1! JovuCallbackClient: The callback debug_event has thrown - odd.",
                    "trace 7", "data " + std::to_string(report.size()), "status idle"));
    jovu_set_log_handler(nullptr);
}

TEST_F(CallbackClientTest, MayBeDestroyedInItsCallbackWhichKeepsWhatItUses) {
    auto client = std::make_unique<JovuCallbackClient>();
    JovuCallbacks calls;
    calls.connected = [this, &client, owned = std::make_shared<int>()](JovuDeviceAddress) {
        const std::weak_ptr<int> used = owned;
        client.reset();
        journal.add(used.expired() ? "destroyed" : "kept");
    };
    client->start(std::move(calls));
    fake_usb::plug(1, 5);
    EXPECT_TRUE(journal.wait("kept"));
}

/// A handler that throws or leaves in its own call loses no line.
TEST_F(ExchangeTest, ReportsToTheLogHandlerOrElseOnStandardOutput) {
    testing::internal::CaptureStdout();
    client.on_debug = [](JovuDeviceAddress, const std::string&) { throw JovuException("end"); };
    const std::string line = " -- Transport Error - Device has been disconnected.";
    jovu_set_log_handler([&, kept = line](JovuLogLevel level, std::optional<JovuDeviceAddress> from,
                                          const std::string& text) {
        jovu_set_log_handler(
            [&](JovuLogLevel last, std::optional<JovuDeviceAddress> about, const std::string&) {
                journal.add(last == JovuLogLevel::fatal && !about ? "fatal" : "not");
                throw 1;
            });
        EXPECT_TRUE(level == JovuLogLevel::error && from == JovuDeviceAddress({9, 9}));
        EXPECT_THAT(text, testing::EndsWith(kept));
    });
    client.bio_get_version({9, 9});
    send_event(device);
    EXPECT_TRUE(watcher_ends());
    jovu_set_log_handler(nullptr);
    client.bio_get_version({9, 9});
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"fatal"});
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("Fatal error in hotplug thread - end.\nJovuMessage: [0-9]+" +
                                      line + "\n"));
}

}  // namespace
}  // namespace test
