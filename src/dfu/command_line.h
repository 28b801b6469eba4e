// SPDX-License-Identifier: Apache-2.0

/// @file
/// The command lines of dfu-util, for the shell.
#pragma once

#include <string>

#include "jovu/dfu.h"

namespace jovu {

/// A path as it stands on a command line: between single quotes if a shell, or dfu-util's reading
/// of options, would make something else of it, and otherwise as escape_spaces() leaves it.
std::string path_on_command_line(const std::string& path);

/// The path of dfu-util as it stands on a command line.
/// @param tool_directory from path_on_command_line().
std::string tool_command(const std::string& tool_directory);

/// @param tool_directory from path_on_command_line().
std::string listing_command(const std::string& tool_directory);

/// @param tool_directory from path_on_command_line().
/// @throws JovuException when a text of the device or the file has a null byte.
std::string update_command(const std::string& tool_directory, const JovuDfu::DfuDevice_t& device,
                           const std::string& file);

}  // namespace jovu
