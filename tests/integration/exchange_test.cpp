/// @file
/// Commands and events over the real libusb.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::complaints;
using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::requests;
using test::sim;
using test::stats;
using test::text;

class Exchange : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.wait_connected(device)); }

    void fault(const std::string& what) const { sim("fault " + name(device) + " " + what); }

    JovuDeviceAddress device = plug();
    RecordingClient client;
};

TEST_F(Exchange, CommandsAreAnsweredAndWellFormed) {
    EXPECT_STRNE(client.bio_get_version(device).get(), "");
    EXPECT_STRNE(client.bio_get_serial(device).get(), "");
    EXPECT_EQ(client.gcode_process_command(device, text("G28")), 0U);
    EXPECT_EQ(client.gcode_process_command(device, text("M117 \xC3\xA9\x80\xFF")), 0U);
    EXPECT_NE(client.gcode_process_command(device, text("nonsense")), 0U);
    EXPECT_EQ(JovuTransport::last_send_error(), "");
    EXPECT_EQ(complaints(device), 0) << "the device checks every byte of every request";
}

TEST_F(Exchange, ThreadsTakeTurnsWithEachDevice) {
    const JovuDeviceAddress devices[] = {device, plug()};
    ASSERT_TRUE(client.wait_connected(devices[1]));
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, address = devices[i % 2]] {
            for (int n = 0; n < 25; ++n)
                answered += client.answers(address) ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answered, 100);
    EXPECT_EQ(complaints(devices[0]) + complaints(devices[1]), 0);
}

TEST_F(Exchange, ClientsOfOneDeviceTakeTurnsAsWell) {
    RecordingClient second;
    sim("replug " + name(device));
    ASSERT_TRUE(second.wait_connected(device));
    ASSERT_TRUE(eventually([&] { return client.answers(device); }));
    std::atomic<int> answered{0};
    const auto send = [&](RecordingClient& sender) {
        for (int n = 0; n < 50; ++n)
            answered += sender.answers(device) ? 1 : 0;
    };
    std::thread other([&] { send(second); });
    send(client);
    other.join();
    EXPECT_EQ(answered, 100);
    EXPECT_EQ(complaints(device), 0);
}

TEST_F(Exchange, AnUnplugEndsTheWaitAtOnceAndIsPrinted) {
    fault("silent");
    testing::internal::CaptureStdout();
    std::string reason;
    const auto begin = std::chrono::steady_clock::now();
    std::thread waiting([&] {
        EXPECT_EQ(client.bio_get_version(device), nullptr);
        reason = JovuTransport::last_send_error();
    });
    ASSERT_TRUE(eventually([&] { return requests(device, "bio_get_version") == 1; }));
    sim("unplug " + name(device));
    waiting.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(12));
    EXPECT_EQ(reason, "Transport Error - No response received.");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind("JovuMessage: ", 0), 0U) << printed;
    EXPECT_NE(printed.find(" -- Transport Error - No response received.\n"), std::string::npos);
}

TEST_F(Exchange, DamagedOrMissingAnswersTimeOutAndTheLinkLives) {
    const char* const faults[] = {
        "corrupt check", "corrupt terminator", "corrupt json", "corrupt attrs",
        "corrupt id",    "corrupt truncate",   "deep 32000",   "silent"};
    // Every sender waits in vain for its answer, all at the same time, on a device each.
    std::vector<JovuDeviceAddress> devices;
    for (std::size_t i = 0; i < std::size(faults); ++i)
        devices.push_back(plug());
    std::vector<std::thread> victims;
    for (const char* const what : faults) {
        const JovuDeviceAddress victim = devices[victims.size()];
        ASSERT_TRUE(client.wait_connected(victim));
        sim("fault " + name(victim) + " " + what);
        victims.emplace_back([this, victim, what] {
            const auto begin = std::chrono::steady_clock::now();
            client.gcode_process_command(victim, text("M105"));
            const auto waited = std::chrono::steady_clock::now() - begin;
            EXPECT_GE(waited, std::chrono::milliseconds(14900)) << what;
            EXPECT_EQ(JovuTransport::last_send_error(),
                      "Transport Error - Waiting for response to request timed out.")
                << what;
            client.gcode_process_command(victim, text("M105"));
            EXPECT_EQ(JovuTransport::last_send_error(), "") << "after " << what;
        });
    }
    for (std::thread& victim : victims)
        victim.join();
    for (const JovuDeviceAddress victim : devices)
        EXPECT_EQ(complaints(victim), 0);
}

TEST_F(Exchange, UnaskedForDocumentsOfEveryShapeDisturbNothing) {
    const std::string deep(20000, '[');
    const char* const documents[] = {
        "{}",
        "[]",
        "null",
        R"({"transport":{},"data":{}})",
        R"({"transport":[],"data":{}})",
        R"({"transport":{"attrs":{"a":1},"id":1},"data":{}})",
        R"({"transport":{"attrs":["response"],"id":4000000000},"data":{"command":{}}})",
        R"({"transport":{"attrs":["request"],"id":1e300},"data":[]})",
        R"({"transport":{"attrs":["request"],"id":1},"data":{"command":{"name":5}}})",
        R"({"transport":{"attrs":["request","oneway"],"id":1},"data":{"event":{"name":7}}})",
        R"({"transport":{"attrs":["request","oneway"],"id":1},"data":{"event":{"name":"x"}}})",
        R"({"transport":{"attrs":["request","oneway"],"id":1},)"
        R"("data":{"event":{"name":"debug_event","args":{"t":[72,"x"]}}}})",
        R"({"transport":{"attrs":["request","oneway"],"id":1},)"
        R"("data":{"event":{"name":"servo_dc_trace_event","args":{"t":{"pos":1}}}}})",
        deep.c_str(),
    };
    for (const char* const document : documents) {
        sim("frame " + name(device) + " " + document);
    }
    sim("event " + name(device) + " behind them");
    EXPECT_TRUE(client.wait_text("behind them"));
    EXPECT_EQ(client.texts().size(), 1U) << "malformed events are not told";
    EXPECT_TRUE(client.answers(device));
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

}  // namespace
