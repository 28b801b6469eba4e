// SPDX-License-Identifier: Apache-2.0

/// @file
/// What is known of an attached device without opening it.
#pragma once

#include <libusb.h>

#include <cstdint>

#include "jovu/devices.h"

namespace jovu {

/// @return JovuUsbDevice::type for a product id.
std::int32_t kind_of(std::uint16_t product_id) noexcept;

/// Whether describe() reads the serial number from the system, a file for each device.
enum class Serial { read, leave_out };

/// @return a description without the state.
JovuDeviceInfo describe(libusb_device* device, const libusb_device_descriptor& descriptor,
                        Serial serial = Serial::read);

/// @return why a device could not be opened or claimed.
JovuDeviceState state_after(int libusb_error) noexcept;

}  // namespace jovu
