/// @file
/// Commands and events over the real libusb.
#include <gtest/gtest.h>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::complaints;
using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
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

TEST_F(Exchange, AMissingResponseTimesOutAndTheLinkLives) {
    fault("silent");
    const auto begin = std::chrono::steady_clock::now();
    client.gcode_process_command(device, text("M105"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(14900));
    EXPECT_EQ(JovuTransport::last_send_error(),
              "Transport Error - Waiting for response to request timed out.");
    client.gcode_process_command(device, text("M105"));
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

}  // namespace
