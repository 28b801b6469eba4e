/// @file
/// JSON as it comes from the host.
#pragma once

#include <initializer_list>
#include <string>

#include "firmware/types.h"

namespace jovusim {

/// Parses a text. The result is_discarded() when it is no JSON, or nested more deeply than any
/// message of the protocol: trees are copied and printed by recursion, and the host is not trusted.
Json parse_json(const std::string& text);

/// Whether a JSON text has blanks or line breaks outside its strings.
bool has_blanks(const std::string& text);

/// Whether a value is an object with these members, in this order.
bool has_members(const Json& object, std::initializer_list<const char*> keys);

}  // namespace jovusim
