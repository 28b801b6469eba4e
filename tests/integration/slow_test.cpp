/// @file
/// Clients that take long to build, and threads that are slow to begin.
#include <gtest/gtest.h>

#include "jovu/client.h"
#include "support/recording_client.h"
#include "support/sim_control.h"
#include "support/slow_allocation.h"
#include "support/wait.h"

namespace {

TEST(SlowConstruction, DoesNotLoseADeviceThatIsAttached) {
    const JovuDeviceAddress device = test::plug();
    // The parts of a client register one after the other. A device that is opened in between is
    // told to the first part only, and could never be talked to.
    test::allocation_delay = std::chrono::milliseconds(100);
    JovuClient client;
    test::allocation_delay = std::chrono::milliseconds(0);
    EXPECT_TRUE(test::eventually([&] { return client.bio_get_version(device) != nullptr; },
                                 std::chrono::seconds(20)));
}

TEST(SlowNotification, ThatComesAfterTheUnplugDoesNotBringTheDeviceBack) {
    const JovuDeviceAddress first = test::plug();
    test::RecordingClient client;
    ASSERT_TRUE(client.wait_connected(first));
    test::new_threads_are_slow = true;
    const JovuDeviceAddress device = test::plug();
    ASSERT_TRUE(test::eventually([&] { return client.list_connected().size() == 2; }));
    test::sim("unplug " + test::name(device));
    ASSERT_TRUE(test::eventually([&] { return client.list_connected().size() == 1; }));
    test::new_threads_are_slow = false;
    ASSERT_TRUE(client.wait_connected(device));
    ASSERT_TRUE(client.wait_disconnected(device));
    EXPECT_FALSE(client.answers(device));
    EXPECT_EQ(JovuTransport::last_send_error(), "Transport Error - Device has been disconnected.");
}

}  // namespace
