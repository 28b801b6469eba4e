// SPDX-License-Identifier: Apache-2.0

/// @file
/// The USB devices that the system shows in /sys, /dev and /proc, open or not, and the reasons why
/// one cannot be opened.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "jovu/device_address.h"

namespace jovu_cli {

/// The vendor id of every controller, in DFU mode too. Devices of other vendors are never written
/// to.
constexpr std::uint16_t kControllerVendor = 0x7A1C;
/// The product id of a controller that runs its firmware.
constexpr std::uint16_t kControllerProduct = 0x0002;

/// One device of the controllers' vendor.
struct AttachedDevice {
    enum class Kind {
        controller,  ///< The kind that the library opens.
        dfu,         ///< In DFU mode.
        other,
    };

    JovuDeviceAddress address;
    Kind kind;
    std::string system_name;  ///< In /sys/bus/usb/devices, such as "1-2": its port.
    std::string serial;       ///< Empty when the system does not show it.
};

/// @return the devices of the controllers' vendor in the order of their addresses; empty also when
///     /sys is not readable.
std::vector<AttachedDevice> attached_devices();

/// The state of a device's node.
struct NodeState {
    std::string path;                  ///< "/dev/bus/usb/001/002"
    int open_error = 0;                ///< The errno of opening it; 0 for success.
    std::string driver;                ///< The kernel driver of an interface; empty for none.
    bool unused = false;               ///< No driver and no program uses an interface.
    bool ours = false;                 ///< This program has it open.
    std::vector<std::string> holders;  ///< Other programs that have it open: "name (process 12)".
};

/// Examines the node of a device, by opening it for a moment. Only the superuser sees the programs
/// of other users.
NodeState look_at_node(const AttachedDevice& device);

/// A reason why a device cannot be opened.
struct Obstacle {
    std::string reason;  ///< Names the node.
    std::string hint;    ///< What the user can do about it.
};

/// @return the reason why the library could not open a device.
Obstacle obstacle_at(const NodeState& node);

/// @return how to get the permission to open devices; names the installed udev rule.
std::string permission_hint();

}  // namespace jovu_cli
