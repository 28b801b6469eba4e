/// @file
/// What can follow what has been typed at the shell's prompt.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace jovu_cli {

/// The ways to go on with the last word of a line.
struct Completion {
    std::size_t typed = 0;           ///< Length of the word so far.
    std::vector<std::string> words;  ///< What it can become, each once.
};

/// Completes a line up to the cursor: the shell's commands, the firmware's, the keys of their
/// arguments and the members of those, file names.
/// @param commands the shell's commands, with their dots.
/// @param devices the devices that can be chosen.
Completion complete(const std::string& line, const std::vector<std::string>& commands,
                    const std::vector<std::string>& devices);

/// The longest text that all words begin with.
std::string common_prefix(const std::vector<std::string>& words);

}  // namespace jovu_cli
