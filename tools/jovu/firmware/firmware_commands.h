/// @file
/// The firmware's commands as the program sees them: by name, with arguments and results as JSON.
/// All of it is made from the library's own table of commands.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "firmware/value_type.h"
#include "jovu/device_address.h"
#include "terminal/output.h"

class JovuCommandInterface;

namespace jovu_cli {

/// One command.
struct FirmwareCommand {
    int index;  ///< In the firmware's own table.
    std::string_view name;
    std::string_view summary;  ///< One line for people.
    std::vector<NamedType> arguments;
    ValueType result;
    /// The device writes what it is asked for into a buffer, which is not handed back: the result
    /// is only its status.
    bool keeps_value;

    /// Makes one exchange with a device. Blocks, and fails, as the library's method does.
    /// @param arguments an object as read_arguments() returns it.
    /// @return the result; null for a command without one, and for a text that did not come.
    Json (*call)(JovuCommandInterface& commands, JovuDeviceAddress address, const Json& arguments);
};

/// Every command, in the order of the indices.
const std::vector<FirmwareCommand>& firmware_commands();

/// The command of that name.
/// @throws Failure usage that suggests names which come close.
const FirmwareCommand& firmware_command(const std::string& name);

/// The names of all commands, in the order of the indices.
std::vector<std::string> firmware_command_names();

/// Reads the value that is kept in a file; "-" is standard input.
using FileReader = std::function<std::string(const std::string& file)>;

/// Reads words of the form KEY=VALUE. A structure is given as one JSON object (KEY={...}), by its
/// members (KEY.MEMBER=VALUE), or by both: then the members replace those of the object. Members
/// that are not given are zero. The value @FILE is read from a file; a value that begins with @@
/// stands for itself without the first @.
/// @param read_file gets the names of such files; what it throws passes on.
/// @return an object with a value for each argument, for FirmwareCommand::call().
/// @throws Failure usage that names the key and the value, or the file in its place.
Json read_arguments(const FirmwareCommand& command, const std::vector<std::string>& words,
                    const FileReader& read_file);

}  // namespace jovu_cli
