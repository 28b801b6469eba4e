// SPDX-License-Identifier: Apache-2.0

/// @file
/// How a device presents itself: USB descriptors.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "device/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// The only configuration's number.
constexpr std::uint8_t kConfigurationValue = 1;

/// The speeds at which a device can be attached.
enum class UsbSpeed : std::uint8_t { full, high };

/// The largest packet of a bulk endpoint in bytes. At high speed the standard allows 512 only.
std::uint16_t max_packet(const EndpointInfo& endpoint, UsbSpeed speed);

/// Returns the whole descriptor for GET_DESCRIPTOR; nothing when the device has none of that type
/// and index. A device that runs at full speed cannot run at high speed.
/// @param type  descriptor type as in the high byte of wValue
/// @param index as in the low byte of wValue
std::optional<std::string> find_descriptor(const UsbIdentity& identity, UsbSpeed speed,
                                           std::uint8_t type, std::uint8_t index);

/// Returns the contents of the "descriptors" file in sysfs: the device descriptor and that of the
/// configuration, at full speed.
std::string sysfs_descriptors(const UsbIdentity& identity);

}  // namespace jovusim
