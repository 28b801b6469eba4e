/// @file
/// The commands that the firmware knows.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "firmware/gcode.h"
#include "firmware/machine.h"
#include "firmware/types.h"

namespace jovusim {

/// Who this controller is. Constant for its life; each device on a bus has a serial of its own.
struct Identity {
    std::string model_name = "JoVu Simulator";
    std::string firmware_name = "jovu-sim";
    std::string firmware_version = "1.0.0";
    std::string serial;
};

/// What a command works on.
struct CommandContext {
    const Identity& identity;
    Machine& machine;
    GcodeInterpreter& gcode;
    const Json& args;                       ///< checked against the command's rules
    std::vector<std::string>& debug_lines;  ///< each becomes a debug event before the answer
};

/// One argument of a command.
struct ArgumentRule {
    const char* key = nullptr;
    /// Says what is wrong with a value, or nothing.
    std::optional<std::string> (*check)(const Json& value) = nullptr;
};
constexpr std::size_t kMostArguments = 3;

/// One row of the command table.
struct Command {
    int idx;
    const char* name;
    /// Returns the value of "__return__".
    Json (*run)(CommandContext& context);
    /// In the order in which they travel; a rule without a key ends them.
    std::array<ArgumentRule, kMostArguments> arguments;

    std::size_t argument_count() const;
};

/// The command of that name, or null.
const Command* find_command(const std::string& name);

}  // namespace jovusim
