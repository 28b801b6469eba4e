// SPDX-License-Identifier: Apache-2.0

/// @file
/// Counts allocations: those of C++ and those of C libraries.
#pragma once

#include <cstdint>

namespace bench {

/// How many blocks of memory the calling thread has allocated so far.
std::uint64_t allocations() noexcept;

}  // namespace bench
