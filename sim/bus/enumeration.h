/// @file
/// How programs find a device: USB descriptors, its entry in sysfs, hot-plug messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bus/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// The only configuration's number.
constexpr std::uint8_t kConfigurationValue = 1;

/// The response to GET_DESCRIPTOR, whole; nothing when the device has no such descriptor.
/// @param type  descriptor type as in the high byte of wValue
/// @param index as in the low byte of wValue
std::optional<std::string> find_descriptor(const UsbIdentity& identity, std::uint8_t type,
                                           std::uint8_t index);

/// The contents of the "descriptors" file: the device's and every configuration's.
std::string sysfs_descriptors(const UsbIdentity& identity);

/// The device in the notation from which a umockdev testbed makes a sysfs entry. Without a device
/// node: the bus makes that itself.
std::string testbed_record(const UsbIdentity& identity, BusAddress address);

/// Sends hot-plug messages to the programs that watch a testbed. The testbed's own sender ends the
/// process when a listener goes away at the wrong moment; this one takes it as it is.
/// Main thread only.
class UeventSender {
public:
    /// @param root the testbed's directory, where listeners have their sockets
    explicit UeventSender(std::string root) : root_(std::move(root)) {}

    /// @param action "add" or "remove"
    void send(const std::string& action, BusAddress address);

private:
    std::string root_;
    unsigned sequence_ = 0;
};

}  // namespace jovusim
