// SPDX-License-Identifier: Apache-2.0

/// @file
/// Suggestions for a mistyped name.
#pragma once

#include <string>
#include <vector>

namespace jovu_cli {

/// The names that are similar to @p typed: equal but for case, few edits away, or containing it.
/// @return at most five, the most similar first; none when no name is similar.
std::vector<std::string> suggestions(const std::string& typed,
                                     const std::vector<std::string>& names);

/// @return "did you mean A, B or C?"; empty without a suggestion.
std::string did_you_mean(const std::string& typed, const std::vector<std::string>& names);

/// @return the string with A to Z in lower case.
std::string lower_case(std::string value);

}  // namespace jovu_cli
