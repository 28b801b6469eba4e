/// @file
/// A program on a simulated bus, from start to end.
#pragma once

#include "tool/options.h"

namespace jovusim {

/// Makes the bus, runs the program on it and serves the control socket until the program has ended.
/// @returns the program's exit status, or one of exit_status.h
int run_on_bus(const RunOptions& options);

}  // namespace jovusim
