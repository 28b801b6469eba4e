/// @file
/// How many names of events are kept.
#pragma once

#include <cstddef>

namespace jovu {

/// How many unknown event names are remembered. A device that makes up names without end must not
/// fill the memory.
inline constexpr std::size_t kMaxUnknownNames = 64;

}  // namespace jovu
