// SPDX-License-Identifier: Apache-2.0
#include "jobs/status_waiters.h"

#include <algorithm>
#include <utility>

namespace jovu {

StatusWaiters::Waiter::Waiter(StatusWaiters& waiters, JovuDeviceAddress address)
    : waiters_(waiters), address_(address) {
    const MutexLock lock(waiters_.mutex_);
    waiters_.waiters_.push_back(this);
}

StatusWaiters::Waiter::~Waiter() {
    const MutexLock lock(waiters_.mutex_);
    auto& all = waiters_.waiters_;
    all.erase(std::find(all.begin(), all.end(), this));
}

void StatusWaiters::Waiter::end() {
    const MutexLock lock(waiters_.mutex_);
    error_ = JovuError::disconnected;
}

JovuError StatusWaiters::Waiter::wait(Clock::time_point deadline, Report& report) {
    const MutexLock lock(waiters_.mutex_);
    for (;;) {
        if (report_) {
            report = std::move(*report_);
            return JovuError::none;
        }
        if (waiters_.closed_) return JovuError::shut_down;
        if (error_ != JovuError::none) return error_;
        const auto left = deadline - Clock::now();
        if (left <= left.zero()) return JovuError::response_timed_out;
        waiters_.changed_.wait_for(waiters_.mutex_, left);
    }
}

void StatusWaiters::deliver(JovuDeviceAddress address, const Report& report) {
    const MutexLock lock(mutex_);
    for (Waiter* const waiter : waiters_) {
        if (waiter->address_ == address && !waiter->report_) waiter->report_ = report;
    }
    changed_.notify_all();
}

void StatusWaiters::end(JovuDeviceAddress address) {
    const MutexLock lock(mutex_);
    for (Waiter* const waiter : waiters_) {
        if (waiter->address_ == address) waiter->error_ = JovuError::disconnected;
    }
    changed_.notify_all();
}

void StatusWaiters::close() {
    const MutexLock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

}  // namespace jovu
