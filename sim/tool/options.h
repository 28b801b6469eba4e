/// @file
/// The command line of jovu-sim.
#pragma once

#include <string>
#include <variant>
#include <vector>

namespace jovusim {

/// jovu-sim run
struct RunOptions {
    unsigned devices = 1;  ///< plugged in before the program starts
    double speed = 1.0;    ///< machine seconds in a second
    std::vector<std::string> program;
};

/// jovu-sim ctl
struct CtlOptions {
    std::string request;
};

/// The command line ends the program with that status: help was printed, or an error.
struct ExitNow {
    int status;
};

/// Reads the command line. Prints help to standard output and errors to standard error.
std::variant<RunOptions, CtlOptions, ExitNow> parse_options(int argc, char** argv);

}  // namespace jovusim
