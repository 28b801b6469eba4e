#include "usb/device_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>

namespace {

using std::chrono::milliseconds;

// Taken through a place, a gate is held in a way that the analysis cannot see.
void place_goes_first() JOVU_NO_THREAD_SAFETY_ANALYSIS {
    jovu::DeviceGate gate;
    std::optional<jovu::DeviceGate::Place> place(std::in_place, gate);
    std::atomic<bool> locked{false};
    std::thread other([&]() JOVU_NO_THREAD_SAFETY_ANALYSIS {
        gate.lock();
        locked = true;
        gate.unlock();
    });
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_FALSE(locked) << "the gate is free, but promised";
    EXPECT_TRUE(place->try_lock_for(milliseconds(0)));
    gate.lock();
    EXPECT_TRUE(place->try_lock_for(milliseconds(0))) << "who holds it may enter again";
    for (int depth = 0; depth < 3; ++depth)
        gate.unlock();
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_FALSE(locked);
    place.reset();
    other.join();
    EXPECT_TRUE(locked);
}

void place_waits_for_the_holder() JOVU_NO_THREAD_SAFETY_ANALYSIS {
    jovu::DeviceGate gate;
    gate.lock();
    std::thread([&gate] {
        jovu::DeviceGate::Place place(gate);
        EXPECT_FALSE(place.try_lock_for(milliseconds(5)));
    }).join();
    std::thread first([&gate] { const jovu::FirstGateLock lock(gate); });
    std::this_thread::sleep_for(milliseconds(5));
    gate.unlock();
    first.join();
    const jovu::GateLock lock(gate);
}

TEST(DeviceGate, APlaceGoesBeforeThoseWhoMerelyLock) {
    place_goes_first();
}

TEST(DeviceGate, APlaceWaitsForTheHolderAsLongAsItLikes) {
    place_waits_for_the_holder();
}

}  // namespace
