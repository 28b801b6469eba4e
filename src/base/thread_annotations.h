// SPDX-License-Identifier: Apache-2.0

/// @file
/// Clang's thread-safety attributes; empty for other compilers. `-Wthread-safety` checks them.
#pragma once

#if defined(__clang__)
#define JOVU_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define JOVU_THREAD_ATTRIBUTE(x)
#endif

#define JOVU_CAPABILITY(name) JOVU_THREAD_ATTRIBUTE(capability(name))
#define JOVU_SCOPED_CAPABILITY JOVU_THREAD_ATTRIBUTE(scoped_lockable)
#define JOVU_GUARDED_BY(mutex) JOVU_THREAD_ATTRIBUTE(guarded_by(mutex))
#define JOVU_REQUIRES(...) JOVU_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define JOVU_EXCLUDES(...) JOVU_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define JOVU_ACQUIRE(...) JOVU_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define JOVU_RELEASE(...) JOVU_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define JOVU_TRY_ACQUIRE(...) JOVU_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define JOVU_NO_THREAD_SAFETY_ANALYSIS JOVU_THREAD_ATTRIBUTE(no_thread_safety_analysis)
