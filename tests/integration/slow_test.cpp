/// @file
/// Clients that take long to build, and threads that are slow to begin.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

/// Says whether it was called before it was built.
class SlowClient : public JovuClient {
public:
    SlowClient(std::atomic<bool>& built, std::atomic<int>& early, std::atomic<int>& announced,
               const JovuScanPause& = JovuScanPause())
        : built_(built), early_(early), announced_(announced) {
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        built_ = true;
    }
    ~SlowClient() override { shutdown(); }
    void device_connected(JovuDeviceAddress) override {
        if (!built_) ++early_;
        ++announced_;
    }
    void debug_event(JovuDeviceAddress, std::shared_ptr<char>) override {
        if (!built_) ++early_;
        ++announced_;
    }

private:
    std::atomic<bool>& built_;
    std::atomic<int>& early_;
    std::atomic<int>& announced_;
};

TEST(SlowConstruction, OfADerivedClassIsOverBeforeItIsToldOfADevice) {
    test::plug();
    std::atomic<bool> built{false};
    std::atomic<int> early{0};
    std::atomic<int> announced{0};
    const SlowClient client(built, early, announced);
    EXPECT_TRUE(test::eventually([&] { return announced == 1; }, std::chrono::seconds(20)));
    EXPECT_EQ(early, 0);
}

TEST(SlowConstruction, WhileAnotherClientReceivesIsOverBeforeDataComes) {
    const JovuDeviceAddress device = test::plug();
    test::RecordingClient first;
    ASSERT_TRUE(first.wait_connected(device));
    std::atomic<bool> done{false};
    std::thread talker([&] {
        while (!done)
            test::sim("event " + test::name(device) + " hello");
    });
    std::atomic<bool> built{false};
    std::atomic<int> early{0};
    std::atomic<int> events{0};
    const SlowClient second(built, early, events);
    EXPECT_TRUE(test::eventually([&] { return events > 3; }));
    EXPECT_EQ(early, 0);
    done = true;
    talker.join();
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
