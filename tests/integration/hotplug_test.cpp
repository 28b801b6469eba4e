/// @file
/// Devices that come and go, on the simulated bus.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;

TEST(Hotplug, ListingKnowsKindsAndNeedsNoClient) {
    plug("1:4 product=0002");
    plug("1:5 product=0003");
    plug("1:6 product=0099");
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected({1, 4}));
    std::multiset<int> kinds;
    for (const JovuUsbDevice& device : client.list_attached())
        kinds.insert(device.type);
    EXPECT_EQ(kinds, (std::multiset<int>{0, 1, 2}));
    EXPECT_EQ(client.list_connected().size(), 1U) << "only one kind is opened";

    // Off the link there is no context, and still the bus can be listed.
    client.shutdown();
    EXPECT_EQ(client.list_attached().size(), 3U);
}

TEST(Hotplug, AClosedDeviceStaysClosedUntilItIsReplugged) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    client.close(device);
    ASSERT_TRUE(client.wait_disconnected(device));
    EXPECT_EQ(client.list_connected().size(), 1U);
    EXPECT_THROW(client.close(device), JovuException);
    EXPECT_THROW(client.close({9, 9}), JovuException);
    EXPECT_THROW(client.RequestStatus(device), JovuException);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // two scans
    EXPECT_EQ(client.connects(device), 1U);

    sim("unplug " + name(device));
    ASSERT_TRUE(eventually([&] { return client.list_connected().empty(); }));
    plug(name(device));
    ASSERT_TRUE(client.wait_connected(device, 2));
    EXPECT_TRUE(client.answers(device));
    EXPECT_EQ(client.disconnects(device), 1U) << "the close was the only one to be told";
}

TEST(Hotplug, SendersInATightLoopDoNotHideArrivals) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            while (!stop)
                client.RequestStatus(device);
        });
    }
    const auto begin = std::chrono::steady_clock::now();
    const JovuDeviceAddress late = plug("1:30");
    EXPECT_TRUE(client.wait_connected(late));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    sim("unplug " + name(late));
    EXPECT_TRUE(client.wait_disconnected(late));
    EXPECT_EQ(client.connects(late), 1U);
    EXPECT_EQ(client.disconnects(device), 0U);
    stop = true;
    for (std::thread& sender : senders)
        sender.join();
}

}  // namespace
