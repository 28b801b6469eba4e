// SPDX-License-Identifier: Apache-2.0

/// @file
/// Lines of the shell: split into words, and completed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace jovu_cli {

/// Splits a line at its blanks. Quotes ('...' or "...") keep blanks; a backslash makes the next
/// character an ordinary one, except between single quotes.
/// @throws Failure usage for an open quote or a backslash at the end.
std::vector<std::string> split_words(const std::string& line);

/// Whether a line assigns a key or password of the firmware's commands: KEY=VALUE, also a member or
/// within JSON. A value that is read from a file is none (KEY=@FILE).
bool holds_secret(const std::string& line);

/// The possible continuations of the last word of a line.
struct Completion {
    std::size_t typed = 0;                ///< Length of the word so far.
    std::vector<std::string> candidates;  ///< The complete words, each once.
};

/// Completes a line up to the cursor: commands of the shell and of the firmware, keys of their
/// arguments and members, file names.
/// @param commands the shell's commands, with their dots.
/// @param devices the devices that can be chosen.
Completion complete(const std::string& line, const std::vector<std::string>& commands,
                    const std::vector<std::string>& devices);

/// @return the longest string that all words begin with.
std::string common_prefix(const std::vector<std::string>& words);

}  // namespace jovu_cli
