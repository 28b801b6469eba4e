// SPDX-License-Identifier: Apache-2.0

/// @file
/// Visibility of the library's symbols: everything is hidden but what carries JOVU_API.
#pragma once

#if defined(JOVU_STATIC)
#define JOVU_API
#elif defined(__GNUC__)
/// Marks a class or function as part of the shared library's interface.
#define JOVU_API __attribute__((visibility("default")))
#else
#define JOVU_API
#endif
