/// @file
/// The arguments of a firmware command as they stand on a command line.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "firmware_commands.h"
#include "output.h"

namespace jovu_cli {

/// Reads the value that is kept in a file; "-" is standard input.
using ValueSource = std::function<std::string(const std::string& file)>;

/// Reads words of the form KEY=VALUE. A structure is given as one JSON object (KEY={...}), by its
/// members (KEY.MEMBER=VALUE), or by both: then the members replace those of the object. Members
/// that are not given are zero. The value @FILE is read from a file; a value that begins with @@
/// stands for itself without the first @.
/// @param read_file gets the names of such files; what it throws passes on.
/// @return an object with a value for each argument, for FirmwareCommand::call().
/// @throws Failure usage that names the key and the value, or the file in its place.
Json read_arguments(const FirmwareCommand& command, const std::vector<std::string>& words,
                    const ValueSource& read_file);

}  // namespace jovu_cli
