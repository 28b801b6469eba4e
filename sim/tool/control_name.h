/// @file
/// Where programs find the control socket.
#pragma once

namespace jovusim {

/// The environment variable with the socket's path.
constexpr char kControlVariable[] = "JOVU_SIM_CONTROL";

}  // namespace jovusim
