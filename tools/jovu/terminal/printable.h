/// @file
/// Decides what may be shown. All output of the program goes through here.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace jovu_cli {

/// Whether a character may be shown: a terminal only draws it, and a reader can see it. Control
/// and format characters (marks that turn the writing direction, characters without width), blanks
/// other than U+0020, and characters that are private or unassigned for good may not.
bool is_shown(char32_t code);

/// A string from a device, a file name or an argument as it may be shown: on one line, and made of
/// nothing but is_shown() characters. All other characters become escapes (`\n`, `\x1b`, `\u202e`,
/// `\U000e0041`), as do bytes that are not UTF-8 (`\xc3`). A string that was returned by this
/// function stays as it is.
std::string printable(std::string_view text);

/// Whether a text is well-formed UTF-8. One that is cut within its last character is not.
bool is_utf8(std::string_view text);

/// Number of characters in a text that is UTF-8 (as printable() returns it).
std::size_t character_count(std::string_view text);

/// The text, cut to at most @p columns characters.
std::string fit(std::string_view text, std::size_t columns);

}  // namespace jovu_cli
