/// @file
/// USB descriptors of a simulated device and its entry in sysfs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bus/bus_address.h"
#include "firmware/usb_function.h"

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

}  // namespace jovusim
