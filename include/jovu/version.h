// SPDX-License-Identifier: Apache-2.0

/// @file
/// The version of the library.
///
/// The macros give the version of the headers that a program is compiled with, jovu_version() that
/// of the library that it runs with. Libraries of one major version are compatible: a program runs
/// with any of its own minor version or a later one.
#pragma once

#include "jovu/export.h"

/// @name The version of the headers
/// @{

/// Changes when programs need to be changed.
#define JOVU_VERSION_MAJOR 1
/// Changes when something is added.
#define JOVU_VERSION_MINOR 0
/// Changes when faults are mended.
#define JOVU_VERSION_PATCH 0

/// @cond
#define JOVU_VERSION_STRING_(x) #x
#define JOVU_VERSION_JOIN_(major, minor, patch) \
    JOVU_VERSION_STRING_(major) "." JOVU_VERSION_STRING_(minor) "." JOVU_VERSION_STRING_(patch)
/// @endcond

/// "MAJOR.MINOR.PATCH", a string literal.
#define JOVU_VERSION JOVU_VERSION_JOIN_(JOVU_VERSION_MAJOR, JOVU_VERSION_MINOR, JOVU_VERSION_PATCH)

/// @}

/// @return JOVU_VERSION of the library itself. Threads: any.
JOVU_API const char* jovu_version() noexcept;
