/// @file
/// Makes texts from outside safe to show.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace jovu_cli {

/// A text from a device or a file name as it may be shown: on one line, and without anything that
/// a terminal acts on. Control characters, bytes that are not UTF-8, and the characters that turn
/// the writing direction come out as escapes (`\n`, `\x1b`, `\u202e`); all else is unchanged.
std::string printable(std::string_view text);

/// Number of characters in a text that is UTF-8 (as printable() returns it).
std::size_t character_count(std::string_view text);

/// The text, cut to at most @p columns characters.
std::string fit(std::string_view text, std::size_t columns);

}  // namespace jovu_cli
