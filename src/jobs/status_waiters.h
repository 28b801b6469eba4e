// SPDX-License-Identifier: Apache-2.0

/// @file
/// Threads that wait for a status report.
#pragma once

#include <chrono>
#include <optional>
#include <vector>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "jovu/exception.h"
#include "jovu/job_interface.h"

namespace jovu {

/// The threads that wait for a report of a device.
class StatusWaiters {
public:
    using Clock = std::chrono::steady_clock;
    using Report = JovuJobInterface::StatusMsg;

    /// One waiting thread, for a scope.
    class Waiter {
    public:
        Waiter(StatusWaiters& waiters, JovuDeviceAddress address);
        ~Waiter();
        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

        /// Waits for the first report that has come since the construction.
        /// @param report receives it.
        /// @return JovuError::none, or why there is none: disconnected, shut_down or
        ///     response_timed_out.
        JovuError wait(Clock::time_point deadline, Report& report);

        /// Makes wait() return disconnected, unless a report is there or the client is being shut
        /// down.
        void end();

    private:
        friend class StatusWaiters;

        StatusWaiters& waiters_;
        const JovuDeviceAddress address_;
        // Guarded by the mutex of waiters_.
        std::optional<Report> report_;
        JovuError error_ = JovuError::none;
    };

    /// Hands a report to the threads that wait for one of the device.
    void deliver(JovuDeviceAddress address, const Report& report);

    /// Ends the waits for a device, which has disconnected.
    void end(JovuDeviceAddress address);

    /// Ends all waits, also those that begin later: the client is being shut down.
    void close();

private:
    Mutex mutex_;  ///< A leaf.
    ConditionVariable changed_;
    std::vector<Waiter*> waiters_ JOVU_GUARDED_BY(mutex_);
    bool closed_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
