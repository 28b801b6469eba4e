// SPDX-License-Identifier: Apache-2.0

/// @file
/// How much memory is taken.
#pragma once

#include <cstddef>

#ifdef JOVU_SANITIZED
// Of every sanitizer; g++ comes without the header that declares it.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace test {

/// Bytes that the program holds of the heap.
inline std::size_t heap_in_use() {
#ifdef JOVU_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

}  // namespace test
