// SPDX-License-Identifier: Apache-2.0

/// @file
/// What must hold for every input.
#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the process, for the fuzzer to see, when a condition does not hold; also in release builds.
#define REQUIRE(condition)                                                       \
    do {                                                                         \
        if (!(condition)) {                                                      \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                        \
        }                                                                        \
    } while (false)
