/// @file
/// Clients that begin and end while everything else goes on.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::requests;
using test::sim;
using test::text;

TEST(Lifetime, AClientEndsInTheMiddleOfAFlood) {
    const JovuDeviceAddress device = plug();
    for (int i = 0; i < 10; ++i) {
        RecordingClient client;
        ASSERT_TRUE(client.wait_connected(device));
        sim("fault " + name(device) + " flood message 300");
        sim("fault " + name(device) + " flood job 300");
        ASSERT_TRUE(eventually([&] { return !client.texts().empty(); }));
    }
}

TEST(Lifetime, AWaitingRequestIsWokenByTheEndOfItsClient) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    sim("fault " + name(device) + " silent");
    std::thread waiting([&] { EXPECT_EQ(client.bio_get_version(device), nullptr); });
    ASSERT_TRUE(eventually([&] { return requests(device, "bio_get_version") == 1; }));
    const auto begin = std::chrono::steady_clock::now();
    client.shutdown();
    waiting.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

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

TEST(Lifetime, AClientMayEndOnItsOwnNotificationThread) {
    const JovuDeviceAddress device = plug();
    auto client = std::make_unique<RecordingClient>();
    std::promise<void> ended;
    client->on_disconnected = [&](JovuDeviceAddress) {
        client->shutdown();
        ended.set_value();
    };
    ASSERT_TRUE(client->wait_connected(device));
    sim("unplug " + name(device));
    ASSERT_EQ(ended.get_future().wait_for(test::kPatience), std::future_status::ready);
    client.reset();
}

TEST(Lifetime, ListingGoesOnWhileTheLinkStartsAndStops) {
    plug();
    plug("1:9 product=0003");
    std::atomic<bool> stop{false};
    std::atomic<int> listed{0};
    std::thread lister([&] {
        // A bare transport is enough to ask.
        struct Bare : JovuTransport {
            explicit Bare(const JovuScanPause& /*until_built*/ = JovuScanPause()) {}
            void device_connected(JovuDeviceAddress) override {}
            void device_disconnected(JovuDeviceAddress) override {}
        } bare;
        bare.shutdown();
        while (!stop) {
            EXPECT_EQ(bare.list_attached().size(), 2U);
            bare.list_connected();
            ++listed;
        }
    });
    for (int i = 0; i < 30; ++i)
        RecordingClient client;
    stop = true;
    lister.join();
    EXPECT_GT(listed, 0);
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

TEST(Lifetime, ThreadsThatKeepSendingCannotKeepAClientFromEnding) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    for (int i = 0; i < 6; ++i) {
        senders.emplace_back([&] {
            while (!stop)
                client.bio_get_version(device);
        });
    }
    const auto begin = std::chrono::steady_clock::now();
    client.shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    stop = true;
    for (std::thread& sender : senders)
        sender.join();
}

}  // namespace
