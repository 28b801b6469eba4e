/// @file
/// Controllers in DFU mode: which of the listed devices is the one that is meant.
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

/// How long a device may take to leave the bus and to come back as something else.
constexpr std::chrono::seconds kChangeLimit{20};

/// An id as dfu-util writes it: four hexadecimal digits.
std::string hexadecimal(std::uint16_t id);

/// Whether a device is of the controllers' vendor.
bool is_controller(const ListedDevice& device);

/// A device in DFU mode, for a message.
std::string dfu_device_name(const ListedDevice& device);

/// @throws Failure no_device for a device whose serial number dfu-util cannot be given: one with
///     other characters than letters and digits, or none.
void check_serial(const ListedDevice& device);

/// The devices in DFU mode.
/// @throws Failure several_devices when one of them may pose as another.
DfuListing unambiguous_listing(DfuTool& tool);

/// Says that a choice has to be made.
[[noreturn]] void throw_several(const std::vector<JovuDeviceAddress>& controllers,
                                const std::vector<ListedDevice>& devices);

/// Has a controller leave its firmware, and finds it in DFU mode: a device of the controllers'
/// vendor that was not listed before. A boot loader may have another serial number than the
/// firmware; then it must be the only such device.
/// @throws Failure several_devices, before the controller leaves its firmware, when a device with
///     its serial number is in DFU mode already, and afterwards when two devices may be the one;
///     exchange_failed when none comes; interrupted.
ListedDevice enter_dfu_mode(Session& session, DfuTool& tool, JovuDeviceAddress address,
                            const Identity& identity);

/// Waits for a moment while a device changes.
/// @throws Failure interrupted or output_closed.
void pause_in_change(Session& session);

}  // namespace jovu_cli
