/// @file
/// What the control socket's requests do.
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

}  // namespace jovusim
