// SPDX-License-Identifier: Apache-2.0

/// @file
/// What a notification may call, over the real libusb.
#include <gtest/gtest.h>

#include <optional>

#include "support/recording_client.h"
#include "support/sim_control.h"

namespace {

using test::eventually;
using test::name;
using test::plug;
using test::RecordingClient;
using test::sim;

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
