/// @file
/// Results of firmware commands for people.
#pragma once

#include <string>
#include <vector>

#include "output.h"

namespace jovu_cli {

/// A result as lines. A structure has a line for each member, with the key by which the member can
/// be given as an argument.
std::vector<std::string> value_lines(const Json& value);

}  // namespace jovu_cli
