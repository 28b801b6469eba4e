/// @file
/// Clients over the real libusb: construction, and what may be called in a notification.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <thread>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;

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
    const JovuDeviceAddress device = plug();
    // The parts of a client register one after the other. If a device were opened in between, only
    // the first part would be notified, and no command could be sent to it.
    allocation_delay = 100;
    JovuClient client;
    allocation_delay = 0;
    EXPECT_TRUE(eventually([&] { return client.bio_get_version(device) != nullptr; },
                           std::chrono::seconds(20)));
}

TEST(InANotification, CommandsAndListingsWork) {
    const JovuDeviceAddress device = plug();
    std::optional<JovuScanPause> until_set(std::in_place);
    RecordingClient client;
    client.on_connected = [&](JovuDeviceAddress address) {
        EXPECT_TRUE(client.exchange_works(address) && client.list_connected().size() == 1);
    };
    client.on_disconnected = [&](JovuDeviceAddress address) {
        EXPECT_FALSE(client.exchange_works(address));
        EXPECT_LT(client.list_connected().size(), 2U);
        // The transfers of a device fail before libusb's list is without it.
        EXPECT_TRUE(eventually([&] { return client.list_attached().empty(); }));
    };
    until_set.reset();
    ASSERT_TRUE(client.wait_connected(device));
    sim("unplug " + name(device));
    ASSERT_TRUE(client.wait_disconnected(device));
}

}  // namespace
