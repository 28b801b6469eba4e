// SPDX-License-Identifier: Apache-2.0

/// @file
/// Visibility of the library's symbols: everything is hidden but what carries JOVU_API.
#pragma once

#if defined(JOVU_STATIC)
#define JOVU_API
#define JOVU_LOCAL
#elif defined(__GNUC__)
/// Marks a class or function as part of the shared library's interface.
#define JOVU_API __attribute__((visibility("default")))
/// Keeps a private member of such a class out of that interface. Not for virtual functions: the
/// virtual tables of derived classes name them.
#define JOVU_LOCAL __attribute__((visibility("hidden")))
#else
#define JOVU_API
#define JOVU_LOCAL
#endif
