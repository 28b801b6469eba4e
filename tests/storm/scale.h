/// @file
/// How much of a storm there is.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace test {

/// As a multiple of what the tests run every time.
inline int storm_scale() {
    const char* const text = std::getenv("JOVU_STORM_SCALE");
    return text == nullptr ? 1 : std::max(1, std::atoi(text));
}

}  // namespace test
