// SPDX-License-Identifier: Apache-2.0

/// @file
/// A mutex that clang's `-Wthread-safety` checks. The attributes are empty for other compilers.
#pragma once

#include <mutex>

#if defined(__clang__)
#define JOVU_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define JOVU_THREAD_ATTRIBUTE(x)
#endif

/// The member may be used only with @p mutex held.
#define JOVU_GUARDED_BY(mutex) JOVU_THREAD_ATTRIBUTE(guarded_by(mutex))
/// The function must be called with the mutex held.
#define JOVU_REQUIRES(...) JOVU_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))

namespace jovu_cli {

/// std::mutex, annotated. A std::condition_variable_any can wait with it.
class JOVU_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() JOVU_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() JOVU_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a Mutex for a scope.
class JOVU_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) JOVU_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() JOVU_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace jovu_cli
