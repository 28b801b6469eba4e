// SPDX-License-Identifier: Apache-2.0

/// @file
/// The entry of a device in the sysfs of the testbed.
#pragma once

#include <string>

#include "device/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// Returns the device in the notation of umockdev's testbed, which makes the sysfs entry from it.
/// The record has no device node; Testbed makes that.
std::string testbed_record(const UsbIdentity& identity, BusAddress address);

}  // namespace jovusim
