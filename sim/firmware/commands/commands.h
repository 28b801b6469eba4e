/// @file
/// The commands of the firmware, and the requests that name them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firmware/base/host_input.h"
#include "firmware/base/types.h"
#include "firmware/base/values.h"
#include "firmware/machine/gcode.h"
#include "firmware/machine/machine.h"

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
CommandRows heater_commands();
CommandRows wifi_commands();
CommandRows servo_commands();
CommandRows storage_commands();
CommandRows system_commands();
/// @}

/// A request that could be read far enough to be answered.
struct Request {
    std::uint32_t id = 0;
    bool response_wanted = true;
    Json idx;   ///< as it came, null if missing
    Json name;  ///< as it came, null if missing
    Json args;  ///< as it came, null if missing

    /// What to carry out; null for a request that breaks the rules of its command. Such a request
    /// is answered without a result.
    const Command* command = nullptr;
};

/// Reads the payload of a frame. Everything that differs from
///
///     {"transport":{"attrs":["request","twoway"],"id":N},
///      "data":{"command":{"idx":N,"name":"...","args":{...}}}}
///
/// is complained about: members, their order, types and ranges, blanks between them, an idx that is
/// not the one of the name, and every argument that breaks its rule.
/// @returns nothing when there is no command or no id to response under
std::optional<Request> read_request(const std::string& payload, ProtocolViolations& violations);

}  // namespace jovusim
