// SPDX-License-Identifier: Apache-2.0

/// @file
/// Controllers in DFU mode: selects the right one of the listed devices.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jovu/device_address.h"
#include "session/session.h"
#include "update/dfu_listing.h"
#include "update/dfu_tool.h"

namespace jovu_cli {

/// The product id of a controller's boot loader.
constexpr std::uint16_t kBootLoaderProduct = 0x00DF;

/// How long a device may take to change its mode: to disconnect and connect again.
constexpr std::chrono::seconds kChangeLimit{20};

/// An id as dfu-util writes it: four hexadecimal digits.
std::string hexadecimal(std::uint16_t id);

/// Whether a device has the controllers' vendor id.
bool is_controller(const ListedDevice& device);

/// @return a device in DFU mode, for a message.
std::string dfu_device_name(const ListedDevice& device);

/// @throws Failure no_device for a serial number that cannot be passed to dfu-util: empty, or with
///     other characters than letters and digits.
void check_serial(const ListedDevice& device);

/// @return the devices in DFU mode.
/// @throws Failure several_devices when one of them may imitate another.
DfuListing unambiguous_listing(DfuTool& tool);

/// @throws Failure several_devices that lists the devices.
[[noreturn]] void throw_several(const std::vector<JovuDeviceAddress>& controllers,
                                const std::vector<ListedDevice>& devices);

/// Puts a controller into DFU mode and finds it there: a device of the controllers' vendor that was
/// not listed before. A boot loader may have another serial number than the firmware; then it must
/// be the only such device.
/// @throws Failure several_devices when a device with the controller's serial number is in DFU mode
///     before the change, or when two devices match after it; exchange_failed when none appears;
///     interrupted.
ListedDevice enter_dfu_mode(Session& session, DfuTool& tool, JovuDeviceAddress address,
                            const Identity& identity);

/// Waits for 300 ms while a device changes its mode.
/// @throws Failure interrupted or output_closed.
void pause_in_change(Session& session);

}  // namespace jovu_cli
