/// @file
/// The program's commands, and the parser that is made from them.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace jovu_cli {

/// Every command, in the order in which the help lists them.
const std::vector<Command>& command_table();

/// What a command line asks for.
struct Request {
    CommonOptions options;
    Run run;           ///< Empty when only a text is asked for.
    std::string text;  ///< The help or the version.
};

/// Reads a command line.
/// @throws Failure usage.
Request parse_command_line(int argc, const char* const* argv);

}  // namespace jovu_cli
