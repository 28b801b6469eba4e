/// @file
/// The command line of jovu-sim.
#pragma once

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "firmware/firmware_image.h"

namespace jovusim {

/// jovu-sim run
struct RunOptions {
    unsigned devices = 1;     ///< plugged in before the program starts
    double time_scale = 1.0;  ///< machine seconds in a second
    std::vector<std::string> program;
};

/// jovu-sim ctl
struct CtlOptions {
    std::string request;
};

/// jovu-sim firmware
struct FirmwareOptions {
    std::string version;
    std::size_t size = kUsualImageSize;
};

/// The command line ends the program with that status: help was printed, or an error.
struct ExitNow {
    int status;
};

/// Reads the command line. Prints help to standard output and errors to standard error.
std::variant<RunOptions, CtlOptions, FirmwareOptions, ExitNow> parse_options(int argc, char** argv);

}  // namespace jovusim
