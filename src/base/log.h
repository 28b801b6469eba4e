// SPDX-License-Identifier: Apache-2.0

/// @file
/// The one place where the library reports what goes wrong.
#pragma once

#include <optional>

#include "jovu/device_address.h"
#include "jovu/log.h"

namespace jovu {

/// Hands one line to the log handler of the process; prints it on standard output when there is
/// none, and when the handler throws. The handler is the application's code: hold no lock.
/// @param format as of printf(), without a line feed.
void log(JovuLogLevel level, std::optional<JovuDeviceAddress> device, const char* format,
         ...) noexcept __attribute__((format(printf, 3, 4)));

}  // namespace jovu
