// SPDX-License-Identifier: Apache-2.0

/// @file
/// The requests of the control socket.
#pragma once

#include <string>

#include "device/bus.h"
#include "tool/request_reader.h"

namespace jovusim {

/// Carries out one request, a line without its line feed. Main thread.
/// @returns one line: "ok", "ok STRING" or "error STRING"
std::string run_control_request(Bus& bus, const std::string& line);

/// All requests for the help, one in a line.
std::string control_help();

/// Carries out the rest of a "fault" request. Main thread. @throws std::runtime_error
void set_fault(Bus& bus, const std::string& device, RequestReader& reader);

/// All faults for the help, one in a line.
std::string fault_help();

}  // namespace jovusim
