/// @file
/// Clients over the real libusb: what may be called from inside a callback, and time-outs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::error_of;
using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;
using test::string;

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

TEST(Exchange, TimesOutWithoutAResponseAndTheNextOneWorks) {
    const JovuDeviceAddress device = plug();
    RecordingClient client;
    ASSERT_TRUE(client.wait_connected(device));
    sim("fault " + name(device) + " silent");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(client.exchange_works(device));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(14900));
    EXPECT_EQ(JovuTransport::last_send_error(),
              "Transport Error - Waiting for response to request timed out.");
    EXPECT_TRUE(client.exchange_works(device));
    EXPECT_EQ(test::protocol_violations(device), 0);
}

/// While another thread is in the middle of an exchange, and while none is: the callback's calls
/// return at once either way.
TEST(InACallback, NothingBlocks) {
    const std::string busy = "Send failed - libusb error: -6";
    const std::string gone = "Send failed - Device no longer connected.";
    const std::string not_closed = "Close failed - Device no longer connected.";
    const JovuDeviceAddress nowhere{9, 9};
    for (const bool sending : {false, true}) {
        const JovuDeviceAddress device = plug();
        RecordingClient client;
        std::promise<void> done;
        std::vector<std::string> seen;
        client.on_debug = [&](JovuDeviceAddress address, const std::string& message) {
            if (message != "now") return;
            for (const JovuDeviceAddress to : {address, nowhere}) {
                client.bio_get_version(to);
                seen.push_back(JovuTransport::last_send_error());
                seen.push_back(error_of([&] { client.RequestStatus(to); }));
            }
            EXPECT_TRUE(client.list_connected().size() == 1 && client.list_attached().size() == 1);
            for (const JovuDeviceAddress to : {nowhere, address, address})
                seen.push_back(error_of([&] { client.close(to); }));
            seen.push_back(error_of([&] { client.RequestStatus(address); }));
            done.set_value();
        };
        ASSERT_TRUE(client.wait_connected(device));
        std::future<std::string> sender;
        if (sending) {
            sim("fault " + name(device) + " silent");
            sender = std::async(std::launch::async, [&] {
                client.gcode_process_command(device, string("G28"));
                return JovuTransport::last_send_error();
            });
            ASSERT_TRUE(
                eventually([&] { return test::requests(device, "gcode_process_command") == 1; }));
        }
        const auto begin = std::chrono::steady_clock::now();
        sim("event " + name(device) + " now");
        ASSERT_EQ(done.get_future().wait_for(test::kPatience), std::future_status::ready);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_EQ(seen, (std::vector<std::string>{busy, busy,
                                                  "Transport Error - Device has been disconnected.",
                                                  gone, not_closed, "", not_closed, gone}));
        EXPECT_TRUE(client.wait_disconnected(device)) << "the watcher completes the close";
        EXPECT_EQ(sending ? sender.get() : "",
                  sending ? "Transport Error - No response received." : "");
        sim("unplug " + name(device));
    }
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
