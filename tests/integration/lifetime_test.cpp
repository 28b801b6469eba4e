/// @file
/// Clients that begin and end while everything else goes on.
#include <gtest/gtest.h>

#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;

/// The members of this class are gone when the library's destructor runs: only an early shutdown
/// keeps a notification thread away from them.
TEST(Lifetime, AClientEndsWhileANotificationRuns) {
    const JovuDeviceAddress device = plug();
    for (int i = 0; i < 5; ++i) {
        std::atomic<bool> inside{false};
        std::atomic<bool> left{false};
        {
            RecordingClient client;
            ASSERT_TRUE(client.wait_connected(device));
            client.on_connected = [&](JovuDeviceAddress) {
                inside = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                left = true;
            };
            sim("replug " + name(device));
            ASSERT_TRUE(eventually([&] { return inside.load(); }));
        }
        EXPECT_TRUE(left) << "the destructor waits for the notification";
    }
}

TEST(Lifetime, TheLastClientOfOneInterfaceTakesTheLinkDownForAll) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    {
        JovuJobInterface jobs;
        EXPECT_TRUE(client.answers(device)) << "another job client changes nothing";
    }
    EXPECT_TRUE(client.answers(device));
    client.JovuJobInterface::shutdown();
    EXPECT_TRUE(client.wait_disconnected(device));
    EXPECT_TRUE(client.list_connected().empty());
    const JovuJobInterface jobs;
    EXPECT_TRUE(client.wait_connected(device, 2)) << "a new registration starts the link again";
    EXPECT_TRUE(client.answers(device));
}

TEST(Lifetime, SeveralNotificationsMayEndTheirClient) {
    const JovuDeviceAddress first = plug();
    const JovuDeviceAddress second = plug();
    RecordingClient client;
    std::atomic<int> inside{0};
    std::atomic<int> ended{0};
    client.on_disconnected = [&](JovuDeviceAddress) {
        ++inside;
        eventually([&] { return inside == 2; });
        client.shutdown();
        ++ended;
    };
    ASSERT_TRUE(client.wait_connected(first));
    ASSERT_TRUE(client.wait_connected(second));
    sim("unplug " + name(first));
    sim("unplug " + name(second));
    EXPECT_TRUE(eventually([&] { return ended == 2; }, std::chrono::seconds(20)));
}

}  // namespace
