/// @file
/// The other end of the control socket.
#pragma once

#include <string>

namespace jovusim {

/// Sends one request to the simulator in which this program runs and prints the response.
/// @returns kExitOk, kExitRefused or kExitUsage
int run_control_client(const std::string& request);

}  // namespace jovusim
