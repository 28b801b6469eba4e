/// @file
/// The firmware's commands as the program sees them: by name, with arguments and results as JSON.
/// All of it is made from the library's own table of commands.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "jovu/device_address.h"
#include "output.h"
#include "value_type.h"

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

}  // namespace jovu_cli
