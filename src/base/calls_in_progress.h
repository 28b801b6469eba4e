// SPDX-License-Identifier: Apache-2.0

/// @file
/// Counting calls, so that a shutdown can wait for them.
#pragma once

#include <utility>

#include "base/mutex.h"

namespace jovu {

/// The calls of one kind that are in progress. After close(), new calls are rejected, so wait()
/// terminates.
class CallsInProgress {
public:
    /// One call, for a scope. Constructed and destroyed on the same thread.
    class Call {
    public:
        explicit Call(CallsInProgress& calls) : calls_(calls), admitted_(calls.begin()) {
            if (admitted_) innermost_ = this;
        }
        ~Call() {
            if (!admitted_) return;
            innermost_ = outer_;
            calls_.end(ending_);
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        /// @return whether the call may go on.
        explicit operator bool() const noexcept { return admitted_; }

    private:
        friend class CallsInProgress;

        CallsInProgress& calls_;
        const bool admitted_;
        Call* const outer_ = innermost_;  ///< The call inside which this thread makes this one.
        bool ending_ = false;             ///< The thread has called wait() inside it.
    };

    void close() {
        const MutexLock lock(mutex_);
        closed_ = true;
    }

    bool closed() const {
        const MutexLock lock(mutex_);
        return closed_;
    }

    /// Waits until every call has ended, except those that cannot end before this returns: the
    /// calling thread's own, and those of threads that have called it as well.
    void wait() {
        const MutexLock lock(mutex_);
        bool inside = false;
        for (Call* call = innermost_; call != nullptr; call = call->outer_) {
            if (&call->calls_ != this) continue;
            inside = true;
            if (!std::exchange(call->ending_, true)) ++ending_;
        }
        changed_.notify_all();
        while (count_ > (inside ? ending_ : 0))
            changed_.wait(mutex_);
    }

private:
    bool begin() {
        const MutexLock lock(mutex_);
        if (!closed_) ++count_;
        return !closed_;
    }

    void end(bool ending) {
        const MutexLock lock(mutex_);
        --count_;
        if (ending) --ending_;
        changed_.notify_all();
    }

    /// The calling thread's latest call that has not ended, of whatever kind.
    inline static thread_local Call* innermost_ = nullptr;

    mutable Mutex mutex_;
    ConditionVariable changed_;
    unsigned count_ JOVU_GUARDED_BY(mutex_) = 0;
    /// How many of them belong to threads that have called wait(). It counts until they end, so
    /// that no other thread that waits can miss it.
    unsigned ending_ JOVU_GUARDED_BY(mutex_) = 0;
    bool closed_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
