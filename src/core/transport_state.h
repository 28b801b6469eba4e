/// @file
/// What a transport keeps.
#pragma once

#include <atomic>
#include <memory>
#include <unordered_map>

#include "base/mutex.h"
#include "core/frame.h"
#include "core/notice_threads.h"
#include "core/send_locks.h"
#include "core/waiting_requests.h"
#include "jovu/device_address.h"
#include "jovu/transport.h"

/// Counts calls in progress, so that a shutdown can wait for them.
class CallsInProgress {
public:
    class Call {
    public:
        explicit Call(CallsInProgress& calls) : calls_(calls) {
            const jovu::MutexLock lock(calls_.mutex_);
            ++calls_.count_;
        }
        ~Call() {
            const jovu::MutexLock lock(calls_.mutex_);
            --calls_.count_;
            calls_.changed_.notify_all();
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        CallsInProgress& calls_;
    };

    void wait() {
        const jovu::MutexLock lock(mutex_);
        while (count_ > 0)
            changed_.wait(mutex_);
    }

private:
    jovu::Mutex mutex_;
    jovu::ConditionVariable changed_;
    unsigned count_ JOVU_GUARDED_BY(mutex_) = 0;
};

struct JovuTransport::State {
    /// Receive state per device address. Touched only by the link's calls for interface 0, which
    /// never overlap. An entry outlives its device: a frame that an unplug cut off goes on with the
    /// next bytes from the same address.
    std::unordered_map<JovuDeviceAddress, jovu::FrameDecoder> rx_states;

    jovu::WaitingRequests waiting;
    jovu::SendLocks device_mutexes;
    jovu::NoticeThreads notices;
    CallsInProgress exchanges;
    std::atomic<bool> registered{false};
};
