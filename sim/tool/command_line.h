// SPDX-License-Identifier: Apache-2.0

/// @file
/// The command line of jovu-sim.
#pragma once

#include <cstddef>
#include <string>

#include "firmware/usb/firmware_image.h"
#include "tool/runner.h"
#include "tool/usbip_runner.h"

namespace CLI {
class App;
}

namespace jovusim {

/// @name The commands
/// @{
constexpr const char* kRunCommand = "run";
constexpr const char* kAttachCommand = "attach";
constexpr const char* kServeCommand = "serve";
constexpr const char* kCtlCommand = "ctl";
constexpr const char* kFirmwareCommand = "firmware";
/// @}

/// The values of the options. The words of a request are what remains of the parser of "ctl".
struct CommandLine {
    RunOptions run;
    UsbipOptions usbip;  ///< Of attach and serve.
    bool empty = false;  ///< No controller at the start.
    /// @name Of a firmware image
    /// @{
    std::string version;
    std::size_t size = kUsualImageSize;
    /// @}
};

/// Adds the options and the commands to a parser.
/// @param line receives the values; must live as long as the parser.
void define_command_line(CLI::App& app, CommandLine& line);

/// Parses the arguments of main() and carries the command out.
/// @returns the exit status
int run_command_line(int argc, char** argv);

}  // namespace jovusim
