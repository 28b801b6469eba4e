/// @file
/// The program's command line: the table of its commands, and the parser that is made from it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "commands.h"

namespace CLI {
class App;
}

namespace jovu_cli {

/// Carries out a command with the options that it was given.
using Run = std::function<void(const Context&)>;

/// One row of the table of commands.
struct Command {
    const char* name;
    const char* summary;  ///< One line, for the list of commands.
    /// Adds the command's own options to its parser and returns what carries the command out; the
    /// parsed values live in that function.
    Run (*define)(CLI::App& app);
};

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
