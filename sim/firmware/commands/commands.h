// SPDX-License-Identifier: Apache-2.0

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

/// Identity of the controller. Constant; serial numbers on a bus differ.
struct Identity {
    std::string model_name = "JoVu Simulator";
    std::string firmware_name = "jovu-sim";
    std::string firmware_version = "1.0.0";
    std::string serial;
};

/// Arguments and objects of one command call.
struct CommandContext {
    const Identity& identity;
    Machine& machine;
    GcodeInterpreter& gcode;
    Json& args;  ///< valid by the rules; the response echoes them, changes included
    std::vector<std::string>& debug_lines;  ///< each becomes a debug event before the response
    Millis now;

    /// An argument as a T; its rule must guarantee the type.
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
    /// In wire order; a member without a key ends them.
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

/// Returned by commands without a result.
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

/// A request with an id, which gets a response.
// NOLINTNEXTLINE(bugprone-exception-escape): moving a Json throws when it is damaged alone.
struct Request {
    std::uint32_t id = 0;
    bool response_wanted = true;
    Json idx;   ///< as received, null if missing
    Json name;  ///< as received, null if missing
    Json args;  ///< as received, null if missing

    /// The command to run; null when the request violates its rules. The response then has no
    /// result.
    const Command* command = nullptr;
};

/// Reads the payload of a frame. Every difference from
///
///     {"transport":{"attrs":["request","twoway"],"id":N},
///      "data":{"command":{"idx":N,"name":"...","args":{...}}}}
///
/// is recorded as a protocol violation: members, their order, types and ranges, blanks, an idx that
/// does not belong to the name, and every argument that violates its rule.
/// @returns nothing when there is no command or no id for a response
std::optional<Request> read_request(const std::string& payload, ProtocolViolations& violations);

}  // namespace jovusim
