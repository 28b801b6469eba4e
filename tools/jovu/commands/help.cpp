// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu help`: the program's help, or that of one command.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "commands/command.h"

namespace jovu_cli {
namespace {

void run_help(const Context& context, const std::string& command) {
    const std::vector<std::string> names = command_names();
    if (!command.empty() && std::find(names.begin(), names.end(), command) == names.end()) {
        const std::string near = did_you_mean(command, names);
        throw Failure(ExitCode::usage, "no such command: " + command,
                      near.empty() ? "jovu help lists them" : near);
    }
    std::vector<const char*> arguments{"jovu"};
    if (!command.empty()) {
        arguments.push_back(command.c_str());
    }
    arguments.push_back("--help");
    context.out.raw(
        parse_command_line(static_cast<int>(arguments.size()), arguments.data()).message);
}

Run define_help(CLI::App& app) {
    const auto command = std::make_shared<std::string>();
    app.add_option("COMMAND", *command, "The command; without it, all are listed")->type_name("");
    return [command](const Context& context) { run_help(context, *command); };
}

}  // namespace

const Command kHelpCommand{"help", "Show this help, or that of a command", define_help,
                           FleetUse::irrelevant};

}  // namespace jovu_cli
