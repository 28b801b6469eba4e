// SPDX-License-Identifier: Apache-2.0

/// @file
/// Exit statuses of jovu-sim.
#pragma once

namespace jovusim {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;       ///< ctl: the response was "error"
constexpr int kExitUsage = 2;         ///< wrong command line, or no simulator to talk to
constexpr int kExitFailure = 125;     ///< run: the simulator itself failed
constexpr int kExitCannotRun = 126;   ///< run: the program cannot be run
constexpr int kExitNotFound = 127;    ///< run: the program does not exist
constexpr int kExitSignalBase = 128;  ///< run: plus the signal that ended the program

}  // namespace jovusim
