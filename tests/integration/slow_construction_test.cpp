/// @file
/// A client that takes long to build, on a bus where a device is waiting.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "jovu/client.h"
#include "support/sim_control.h"
#include "support/wait.h"

namespace {

/// Makes this thread's allocations slow, and so what is built in between.
thread_local std::chrono::milliseconds allocation_delay{0};

}  // namespace

void* operator new(std::size_t size) {
    if (allocation_delay.count() > 0) std::this_thread::sleep_for(allocation_delay);
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

TEST(SlowConstruction, DoesNotLoseADeviceThatIsAttached) {
    const JovuDeviceAddress device = test::plug();
    // The parts of a client register one after the other. A device that is opened in between is
    // told to the first part only, and could never be talked to.
    allocation_delay = std::chrono::milliseconds(100);
    JovuClient client;
    allocation_delay = std::chrono::milliseconds(0);
    EXPECT_TRUE(test::eventually([&] { return client.bio_get_version(device) != nullptr; },
                                 std::chrono::seconds(20)));
}

/// Says whether it was called before it was built.
class SlowClient : public JovuClient {
public:
    SlowClient(std::atomic<bool>& built, std::atomic<int>& early, std::atomic<int>& announced,
               const JovuScanHold& = JovuScanHold())
        : built_(built), early_(early), announced_(announced) {
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        built_ = true;
    }
    ~SlowClient() override { shutdown(); }
    void device_connected(JovuDeviceAddress) override {
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

}  // namespace
