// SPDX-License-Identifier: Apache-2.0

/// @file
/// Any number of controllers on a libusb made of memory. They respond to every command and to
/// requests for a status report at once, and send debug messages on request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

/// Plugs controllers in. Once in a process.
/// @param count at most 120 on each of 255 buses.
void plug_controllers(std::size_t count);

/// Has a controller send a debug message. Any thread.
/// @return how many packets now wait for it to be read.
std::size_t send_debug_message(std::size_t controller, const std::string& text);

/// Number of commands, and of requests for a status report, that all controllers have responded to.
std::uint64_t responses();

}  // namespace bench
