// SPDX-License-Identifier: Apache-2.0

/// @file
/// Devices in messages and JSON: the address, which changes with each replug, and the serial
/// number, which stays.
#pragma once

#include <string>

#include "jovu/device_address.h"
#include "terminal/output.h"

namespace jovu_cli {

/// @return "1:2 serial JVS001002", printable; "1:2" for a device whose serial number was never
///     seen. Any thread.
std::string device_name(JovuDeviceAddress address);

/// @return the members "device" and "serial", for the JSON object of something that concerns the
///     device. The serial number is empty when it was never seen. Any thread.
Json device_json(JovuDeviceAddress address);

/// Looks at the device that has connected at an address, so that its serial number is known once it
/// has gone. Any thread.
void remember_device(JovuDeviceAddress address);

}  // namespace jovu_cli
