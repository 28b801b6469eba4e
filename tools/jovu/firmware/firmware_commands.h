// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's commands by name, with arguments and results as JSON. Generated from the
/// library's table of commands.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/json.h"
#include "firmware/value_type.h"
#include "jovu/device_address.h"

class JovuCommandInterface;

namespace jovu_cli {

/// One command.
struct FirmwareCommand {
    int index;  ///< In the firmware's own table.
    std::string_view name;
    std::string_view summary;  ///< One line for people.
    std::vector<NamedType> arguments;
    ValueType result;
    /// The device writes the value into a buffer that is not returned: the result is the status.
    bool keeps_value;

    /// Makes one exchange with a device. Blocks and fails as the library's method does.
    /// @param arguments an object that read_arguments() returned.
    /// @return the result; null for a command without one, and for a missing string.
    Json (*call)(JovuCommandInterface& commands, JovuDeviceAddress address, const Json& arguments);
};

/// @return every command, in the order of the indices.
const std::vector<FirmwareCommand>& firmware_commands();

/// @return the command of that name.
/// @throws Failure usage that suggests similar names.
const FirmwareCommand& firmware_command(const std::string& name);

/// @return the names of all commands, in the order of the indices.
std::vector<std::string> firmware_command_names();

/// Reads a value from a file; "-" is standard input.
using FileReader = std::function<std::string(const std::string& file)>;

/// Reads arguments of the form KEY=VALUE. A structure is given as one JSON object (KEY={...}), by
/// its members (KEY.MEMBER=VALUE), or by both: then the members replace those of the object.
/// Omitted members are zero. The value @FILE is read from a file; of a value that begins with @@
/// the first @ is removed.
/// @param read_file receives the names of such files; its exceptions are passed on.
/// @return an object with a value for each argument, for FirmwareCommand::call().
/// @throws Failure usage that names the key and the value, or the file instead of the value.
Json read_arguments(const FirmwareCommand& command, const std::vector<std::string>& arguments,
                    const FileReader& read_file);

/// Reads arguments from a JSON object, by the same rules: a member for each argument, structures
/// as objects whose omitted members are zero. Booleans may be 0, 1, false or true.
/// @param given any JSON value of parse_strict_json().
/// @return as above.
/// @throws Failure usage that names the key and the value.
Json read_arguments(const FirmwareCommand& command, const Json& given);

}  // namespace jovu_cli
