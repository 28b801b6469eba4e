// SPDX-License-Identifier: Apache-2.0

/// @file
/// How a device presents itself: USB descriptors, and its entry in sysfs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "bus/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// The only configuration's number.
constexpr std::uint8_t kConfigurationValue = 1;

/// Returns the whole descriptor for GET_DESCRIPTOR; nothing when the device has none of that type
/// and index.
/// @param type  descriptor type as in the high byte of wValue
/// @param index as in the low byte of wValue
std::optional<std::string> find_descriptor(const UsbIdentity& identity, std::uint8_t type,
                                           std::uint8_t index);

/// Returns the contents of the "descriptors" file in sysfs: the device descriptor and that of the
/// configuration.
std::string sysfs_descriptors(const UsbIdentity& identity);

/// Returns the device in the notation of umockdev's testbed, which makes the sysfs entry from it.
/// The record has no device node; Testbed makes that.
std::string testbed_record(const UsbIdentity& identity, BusAddress address);

}  // namespace jovusim
