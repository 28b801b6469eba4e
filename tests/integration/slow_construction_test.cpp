// SPDX-License-Identifier: Apache-2.0

/// @file
/// A client whose construction takes long, over the real libusb.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

#include "jovu/client.h"
#include "support/sim_control.h"
#include "support/wait.h"

namespace {

/// How many ms longer each allocation of this thread takes.
thread_local int allocation_delay = 0;

}  // namespace

void* operator new(std::size_t size) {
    if (allocation_delay > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(allocation_delay));
    }
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
    // The parts of a client register one after the other. If a device were opened in between, only
    // the first part would be notified, and no command could be sent to it.
    allocation_delay = 100;
    JovuClient client;
    allocation_delay = 0;
    EXPECT_TRUE(test::eventually([&] { return client.bio_get_version(device) != nullptr; },
                                 std::chrono::seconds(20)));
}

}  // namespace
