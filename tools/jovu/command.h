/// @file
/// What a command of the program is.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "options.h"
#include "output.h"
#include "stop_source.h"

namespace jovu_cli {

/// What every command is given to run with.
struct Context {
    const CommonOptions& options;
    Output& out;
    StopSource& stop;
};

/// Carries a command out. Returns when it has succeeded, throws Failure when not.
using Run = std::function<void(const Context&)>;

/// One row of the table of commands.
struct Command {
    const char* name;
    const char* summary;  ///< One line, for the list of commands.
    /// Adds the command's own options to its parser and returns what carries it out; the parsed
    /// values live in that function.
    Run (*define)(CLI::App& app);
};

/// Adds an option that takes a time in seconds.
/// @param target takes the value; must live as long as the parser.
template <class Target>
CLI::Option* add_seconds_option(CLI::App& app, const std::string& names, Target& target,
                                const std::string& description) {
    const auto take = [&target](const std::string& text) {
        const std::optional<std::chrono::milliseconds> time = parse_seconds(text);
        if (!time) {
            throw CLI::ValidationError("not a time in seconds: " + text);
        }
        target = *time;
    };
    return app.add_option_function<std::string>(names, take, description)->type_name("SECONDS");
}

/// @name The commands, one file each
/// @{
Run define_list(CLI::App& app);
Run define_info(CLI::App& app);
Run define_status(CLI::App& app);
Run define_gcode(CLI::App& app);
Run define_push(CLI::App& app);
Run define_pause(CLI::App& app);
Run define_abort(CLI::App& app);
Run define_events(CLI::App& app);
/// @}

}  // namespace jovu_cli
