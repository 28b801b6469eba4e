// SPDX-License-Identifier: Apache-2.0

/// @file
/// A lock that threads acquire in the order in which they asked for it.
#pragma once

#include "base/mutex.h"

namespace jovu {

/// A FIFO lock. With a plain mutex, a thread that releases it and acquires it again in a loop can
/// keep every other thread waiting. Acquiring it needs no memory. Not recursive.
class FairLock {
public:
    FairLock() = default;
    FairLock(const FairLock&) = delete;
    FairLock& operator=(const FairLock&) = delete;

    /// Waits for the lock for as long as @p wanted returns true.
    /// @param wanted evaluated with an internal mutex held; may acquire a leaf mutex.
    /// @return true when the caller holds the lock and has to unlock() it.
    template <class Wanted>
    bool lock_while(Wanted wanted) {
        const MutexLock lock(mutex_);
        Waiter self(*this);
        while (wanted()) {
            if (!held_ && first_ == &self) {
                held_ = true;
                return true;
            }
            changed_.wait(mutex_);
        }
        changed_.notify_all();  // The next thread may be the first one now.
        return false;
    }

    void lock() {
        lock_while([] { return true; });
    }

    /// Acquires the lock if it is free, ahead of threads that wait.
    bool try_lock() {
        const MutexLock lock(mutex_);
        if (held_) return false;
        held_ = true;
        return true;
    }

    void unlock() {
        const MutexLock lock(mutex_);
        held_ = false;
        changed_.notify_all();
    }

    /// Has every waiting thread evaluate its predicate again.
    void wake() {
        const MutexLock lock(mutex_);
        changed_.notify_all();
    }

    /// Waits until the lock is free.
    void wait_until_free() {
        const MutexLock lock(mutex_);
        while (held_)
            changed_.wait(mutex_);
    }

private:
    /// An element of the queue, on the stack of the waiting thread.
    class Waiter {
    public:
        explicit Waiter(FairLock& owner) noexcept : owner_(owner), before_(owner.last_) {
            (before_ != nullptr ? before_->behind_ : owner_.first_) = this;
            owner_.last_ = this;
        }
        ~Waiter() {
            (before_ != nullptr ? before_->behind_ : owner_.first_) = behind_;
            (behind_ != nullptr ? behind_->before_ : owner_.last_) = before_;
        }
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

    private:
        FairLock& owner_;
        Waiter* before_;
        Waiter* behind_ = nullptr;
    };

    Mutex mutex_;
    ConditionVariable changed_;
    bool held_ JOVU_GUARDED_BY(mutex_) = false;
    Waiter* first_ = nullptr;  ///< The queue; guarded by mutex_.
    Waiter* last_ = nullptr;
};

}  // namespace jovu
