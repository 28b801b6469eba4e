// SPDX-License-Identifier: Apache-2.0

/// @file
/// Escapes characters that must not be shown. All output of the program passes through here.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace jovu_cli {

/// Whether a character may be shown: it is visible and has no effect on a terminal. Control and
/// format characters (writing direction, zero width), blanks other than U+0020, and private or
/// permanently unassigned characters may not.
bool is_shown(char32_t code);

/// @return the string with only is_shown() characters, on one line. Other characters become escapes
///     (`\n`, `\x1b`, `\u202e`, `\U000e0041`), as do bytes that are not UTF-8 (`\xc3`). A string
///     that this function returned is not changed.
std::string printable(std::string_view value);

/// Whether a string is well-formed UTF-8. An incomplete last character is not.
bool is_utf8(std::string_view value);

/// Whether a byte continues a character of UTF-8.
bool is_continuation(char byte);

/// @return the number of characters of a string in UTF-8.
std::size_t character_count(std::string_view value);

/// @return the string, cut to at most @p columns characters.
std::string fit(std::string_view value, std::size_t columns);

}  // namespace jovu_cli
