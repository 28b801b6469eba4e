// SPDX-License-Identifier: Apache-2.0

/// @file
/// The standard mutexes with thread-safety annotations. Lock order: docs/architecture.md.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "base/thread_annotations.h"

namespace jovu {

/// std::mutex, annotated.
class JOVU_CAPABILITY("mutex") Mutex {
public:
    void lock() JOVU_ACQUIRE() { mutex_.lock(); }
    void unlock() JOVU_RELEASE() { mutex_.unlock(); }

private:
    friend class ConditionVariable;
    std::mutex mutex_;
};

/// std::recursive_mutex, annotated.
class JOVU_CAPABILITY("mutex") RecursiveMutex {
public:
    void lock() JOVU_ACQUIRE() { mutex_.lock(); }
    void unlock() JOVU_RELEASE() { mutex_.unlock(); }

private:
    std::recursive_mutex mutex_;
};

/// Holds a lock of any annotated kind for a scope.
template <class Lockable>
class JOVU_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(Lockable& lockable) JOVU_ACQUIRE(lockable) : lockable_(lockable) {
        lockable_.lock();
    }
    ~ScopedLock() JOVU_RELEASE() { lockable_.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Lockable& lockable_;
};

using MutexLock = ScopedLock<Mutex>;

/// std::condition_variable on an annotated Mutex. As with every condition variable, waits may end
/// without reason: callers loop on their condition.
class ConditionVariable {
public:
    void wait(Mutex& mutex) JOVU_REQUIRES(mutex) {
        Held held(mutex);
        condition_.wait(held.lock);
    }

    /// @return false when @p limit passed first.
    template <class Rep, class Period>
    bool wait_for(Mutex& mutex, std::chrono::duration<Rep, Period> limit) JOVU_REQUIRES(mutex) {
        Held held(mutex);
        return condition_.wait_for(held.lock, limit) == std::cv_status::no_timeout;
    }

    void notify_one() noexcept { condition_.notify_one(); }
    void notify_all() noexcept { condition_.notify_all(); }

private:
    /// A mutex that the caller holds, as the standard library wants it. It stays locked.
    struct Held {
        explicit Held(Mutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
        ~Held() { lock.release(); }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition_;
};

}  // namespace jovu
