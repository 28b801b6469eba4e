// SPDX-License-Identifier: Apache-2.0
#include "allocations.h"

#include <cstddef>

// The C library lets a program take the place of malloc() and keeps its own under these names;
// `operator new` and yajl both come through here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

thread_local std::uint64_t count = 0;

}  // namespace

extern "C" void* malloc(std::size_t size) {
    ++count;
    return __libc_malloc(size);
}

extern "C" void* realloc(void* block, std::size_t size) {
    ++count;
    return __libc_realloc(block, size);
}

extern "C" void* calloc(std::size_t number, std::size_t size) {
    ++count;
    return __libc_calloc(number, size);
}

std::uint64_t bench::allocations() noexcept {
    return count;
}
