/// @file
/// The arguments of a firmware command as they stand on a command line.
#pragma once

#include <string>
#include <vector>

#include "firmware_commands.h"
#include "output.h"

namespace jovu_cli {

/// Reads words of the form KEY=VALUE. A structure is given as one JSON object (KEY={...}), by its
/// members (KEY.MEMBER=VALUE), or by both: then the members replace those of the object. Members
/// that are not given are zero.
/// @return an object with a value for each argument, for FirmwareCommand::call().
/// @throws Failure usage that names the key and the value.
Json read_arguments(const FirmwareCommand& command, const std::vector<std::string>& words);

}  // namespace jovu_cli
