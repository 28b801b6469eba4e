/// @file
/// The table of the program's commands and the parser of its command line.
#pragma once

#include <string>
#include <vector>

#include "commands/command.h"

namespace jovu_cli {

/// Every command, in the order in which the help lists them.
const std::vector<Command>& command_table();

/// A parsed command line.
struct Request {
    CommonOptions options;
    Run run;              ///< Empty for --help and --version.
    std::string message;  ///< The help or the version.
};

/// Parses a command line.
/// @throws Failure usage.
Request parse_command_line(int argc, const char* const* argv);

}  // namespace jovu_cli
