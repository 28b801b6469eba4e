/// @file
/// Counting calls, so that a shutdown can wait for them.
#pragma once

#include "base/mutex.h"

namespace jovu {

/// The calls of one kind that are in progress. Closed, it lets no more in, so that those who keep
/// calling cannot keep it from running empty.
class CallsInProgress {
public:
    /// One call, for a scope.
    class Call {
    public:
        explicit Call(CallsInProgress& calls) : calls_(calls), admitted_(calls.begin()) {}
        ~Call() {
            if (admitted_) calls_.end();
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        /// @return whether the call may go on.
        explicit operator bool() const noexcept { return admitted_; }

    private:
        CallsInProgress& calls_;
        const bool admitted_;
    };

    void close() {
        const MutexLock lock(mutex_);
        closed_ = true;
    }

    void wait() {
        const MutexLock lock(mutex_);
        while (count_ > 0)
            changed_.wait(mutex_);
    }

private:
    bool begin() {
        const MutexLock lock(mutex_);
        if (!closed_) ++count_;
        return !closed_;
    }

    void end() {
        const MutexLock lock(mutex_);
        --count_;
        changed_.notify_all();
    }

    Mutex mutex_;
    ConditionVariable changed_;
    unsigned count_ JOVU_GUARDED_BY(mutex_) = 0;
    bool closed_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
