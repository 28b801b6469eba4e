// SPDX-License-Identifier: Apache-2.0

/// @file
/// A mutex with clang's thread-safety attributes; `-Wthread-safety` checks them.
#pragma once

#include <mutex>

#if defined(__clang__)
#define JOVU_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define JOVU_THREAD_ATTRIBUTE(x)
#endif

#define JOVU_CAPABILITY(name) JOVU_THREAD_ATTRIBUTE(capability(name))
#define JOVU_SCOPED_CAPABILITY JOVU_THREAD_ATTRIBUTE(scoped_lockable)
#define JOVU_GUARDED_BY(mutex) JOVU_THREAD_ATTRIBUTE(guarded_by(mutex))
#define JOVU_REQUIRES(...) JOVU_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define JOVU_ACQUIRE(...) JOVU_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define JOVU_RELEASE(...) JOVU_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace jovusim {

/// std::mutex, annotated.
class JOVU_CAPABILITY("mutex") Mutex {
public:
    void lock() JOVU_ACQUIRE() { mutex_.lock(); }
    void unlock() JOVU_RELEASE() { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a mutex for a scope.
class JOVU_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) JOVU_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() JOVU_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace jovusim
