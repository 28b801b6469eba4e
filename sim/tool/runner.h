// SPDX-License-Identifier: Apache-2.0

/// @file
/// Running a program on a simulated bus.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace jovusim {

/// Options of "jovu-sim run".
struct RunOptions {
    unsigned devices = 1;                ///< plugged in before the program starts
    double time_scale = 1.0;             ///< seconds of machine time in one real second
    std::optional<std::string> capture;  ///< file for what is on the bus
    std::vector<std::string> program;
};

/// Makes the bus, runs the program on it and serves the control socket until the program has ended.
/// @returns the program's exit status, or one of exit_status.h
int run_on_bus(const RunOptions& options);

}  // namespace jovusim
