/// @file
/// Words, and lines of them as a shell reads them.
#pragma once

#include <string>
#include <vector>

namespace jovu_cli {

/// Splits a line at its blanks. Between quotes, '...' or "...", blanks are kept; a backslash makes
/// the next character an ordinary one, but not between single quotes.
/// @throws Failure usage when a quote is not closed, or nothing follows a backslash.
std::vector<std::string> split_words(const std::string& line);

/// The text with its letters A to Z as small ones.
std::string lower_case(std::string text);

}  // namespace jovu_cli
