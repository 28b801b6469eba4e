/// @file
/// The wire forms of single values on the message channel.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "firmware/types.h"

namespace jovusim {

/// A text as it travels: an array of signed bytes that ends with 0.
Json string_to_json(const std::string& text);

/// The text in such an array, without its 0; nothing for anything else.
std::optional<std::string> string_from_json(const Json& value);

/// Says what is wrong with a value that should be a text, or nothing.
std::optional<std::string> check_string(const Json& value);

/// A field of a structure: exactly size bytes, those behind the text are 0. @name The elements are
/// signed or unsigned bytes, by the field.
/// @{
Json signed_field(std::string text, std::size_t size);
Json unsigned_field(std::string text, std::size_t size);
/// @}

/// The text in such a field, up to its first 0 or its end.
std::string string_of_field(const Json& field);

}  // namespace jovusim
