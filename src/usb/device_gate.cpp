#include "usb/device_gate.h"

namespace jovu {

bool DeviceGate::enter_again() {
    if (depth_ == 0 || owner_ != std::this_thread::get_id()) return false;
    ++depth_;
    return true;
}

// The bodies below take and release the inner mutex only; that the gate itself is held afterwards
// is state, which the analysis cannot see.
void DeviceGate::lock() JOVU_NO_THREAD_SAFETY_ANALYSIS {
    const MutexLock lock(mutex_);
    if (enter_again()) return;
    const WaitQueue::Place place(queue_);
    while (depth_ != 0 || places_ != 0 || !place.first())
        changed_.wait(mutex_);
    owner_ = std::this_thread::get_id();
    depth_ = 1;
}

void DeviceGate::unlock() JOVU_NO_THREAD_SAFETY_ANALYSIS {
    const MutexLock lock(mutex_);
    if (--depth_ == 0) changed_.notify_all();
}

DeviceGate::Place::Place(DeviceGate& gate) : gate_(gate) {
    const MutexLock lock(gate_.mutex_);
    ++gate_.places_;
}

DeviceGate::Place::~Place() {
    const MutexLock lock(gate_.mutex_);
    if (--gate_.places_ == 0) gate_.changed_.notify_all();
}

bool DeviceGate::Place::try_lock_for(std::chrono::milliseconds limit)
    JOVU_NO_THREAD_SAFETY_ANALYSIS {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const MutexLock lock(gate_.mutex_);
    if (gate_.enter_again()) return true;
    while (gate_.depth_ != 0) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= left.zero()) return false;
        gate_.changed_.wait_for(gate_.mutex_, left);
    }
    gate_.owner_ = std::this_thread::get_id();
    gate_.depth_ = 1;
    return true;
}

FirstGateLock::FirstGateLock(DeviceGate& gate) JOVU_NO_THREAD_SAFETY_ANALYSIS : gate_(gate) {
    DeviceGate::Place place(gate);
    while (!place.try_lock_for(std::chrono::seconds(1))) {
    }
}

}  // namespace jovu
