/// @file
/// Suggestions for a name that was mistyped.
#pragma once

#include <string>
#include <vector>

namespace jovu_cli {

/// The names that come close to what was typed: in other case, begun, with few letters wrong, or
/// with what was typed somewhere within; the closest first.
/// @return a few at most; none when nothing is close.
std::vector<std::string> near_names(const std::string& typed,
                                    const std::vector<std::string>& names);

/// "did you mean A, B or C?"
/// @return empty when nothing is close.
std::string did_you_mean(const std::string& typed, const std::vector<std::string>& names);

}  // namespace jovu_cli
