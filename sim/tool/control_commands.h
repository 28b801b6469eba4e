/// @file
/// The requests of the control socket.
#pragma once

#include <string>

#include "bus/testbed.h"
#include "tool/request_reader.h"

namespace jovusim {

/// Carries out one request, a line without its line feed. Main thread.
/// @returns "ok", "ok STRING" or "error STRING", one line
std::string run_control_request(Testbed& testbed, const std::string& line);

/// All requests, one a line, for the help text.
std::string control_help();

/// Sets the fault that the words describe. Main thread. @throws BadRequest, std::out_of_range
void set_fault(Testbed& testbed, BusAddress address, RequestReader& reader);

/// All faults, one a line, for the help text.
std::string fault_help();

}  // namespace jovusim
