/// @file
/// What the system knows of the devices on USB, whether the library has opened them or not: which
/// ones are attached, and why one of them cannot be opened. From /sys, /dev and /proc.
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

/// One device of the controllers' maker.
struct AttachedDevice {
    enum class Kind {
        controller,  ///< The kind that the library opens.
        dfu,         ///< Waits for a firmware.
        other,
    };

    JovuDeviceAddress address;
    Kind kind;
    std::string system_name;  ///< In /sys/bus/usb/devices, such as "1-2".
};

/// The devices of the controllers' maker, in the order of their addresses. Empty as well when the
/// system does not tell.
std::vector<AttachedDevice> attached_devices();

/// What there is to be seen at the node of a device.
struct NodeState {
    std::string path;                  ///< "/dev/bus/usb/001/002"
    int open_error = 0;                ///< The errno of opening it; 0 when that works.
    std::string driver;                ///< Of the kernel, that has an interface; empty for none.
    bool unused = false;               ///< The kernel says that no driver and no program has it.
    bool ours = false;                 ///< This program has it open.
    std::vector<std::string> holders;  ///< Other programs that have it open: "name (process 12)".
};

/// Looks at the node of a device, by opening it for a moment. Programs of other users can only be
/// seen by the superuser.
NodeState look_at_node(const AttachedDevice& device);

/// Why something does not work, and what can be done about it.
struct Obstacle {
    std::string reason;  ///< Names the node.
    std::string hint;
};

/// Why the library could not open a device.
Obstacle obstacle_at(const NodeState& node);

/// How to get the permission to open devices: names the udev rule where it is installed.
std::string permission_hint();

}  // namespace jovu_cli
