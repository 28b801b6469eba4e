/// @file
/// The commands that the firmware knows.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "firmware/gcode.h"
#include "firmware/machine.h"
#include "firmware/types.h"
#include "firmware/wire_rules.h"

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
    Json&
        args;  ///< fit the command's rules; sent back with the response, whatever is put into them
    std::vector<std::string>& debug_lines;  ///< each becomes a debug event before the response
    Millis now;

    /// An argument as a value of that type, which its rule must have seen to.
    template <typename T>
    T arg(const char* key) const {
        return args[key].get<T>();
    }
    bool flag(const char* key) const { return args[key] != 0; }
};

constexpr std::size_t kMostArguments = 3;

/// One row of the command table.
struct Command {
    int idx;
    const char* name;
    /// Returns the value of "__return__".
    Json (*run)(CommandContext& context);
    /// In the order in which they travel; a member without a key ends them.
    std::array<Member, kMostArguments> arguments;

    std::size_t argument_count() const;
};

/// Some rows of the table.
struct CommandRows {
    const Command* first;
    std::size_t count;

    const Command* begin() const { return first; }
    const Command* end() const { return first + count; }
};

/// What a command without a result returns all the same.
constexpr int kNoResult = 0;

/// The command of that name, or null.
const Command* find_command(const std::string& name);

/// @name The commands by family
/// @{
CommandRows identity_commands();
CommandRows gpio_commands();
CommandRows gcode_commands();
CommandRows heater_commands();
CommandRows wifi_commands();
CommandRows servo_commands();
CommandRows storage_commands();
CommandRows system_commands();
/// @}

}  // namespace jovusim
