/// @file
/// The lock around the connected devices.
#pragma once

#include <chrono>
#include <thread>

#include "base/mutex.h"
#include "base/wait_queue.h"

namespace jovu {

/// A recursive lock that a thread in a tight loop of sends cannot keep from others: whoever calls
/// lock() has it in turn, and whoever holds a Place, such as the watcher, before all of those.
///
/// Threads that hold it run libusb's event handling themselves while they wait, so holding it long
/// never keeps events from being handled.
class JOVU_CAPABILITY("mutex") DeviceGate {
public:
    /// Waits as long as it takes: everyone ahead lets go within the time limits of one send.
    void lock() JOVU_ACQUIRE();
    void unlock() JOVU_RELEASE();

    /// The right to be next. Kept between tries, so that its owner can look after other things in
    /// between; given up by its destructor.
    class Place {
    public:
        explicit Place(DeviceGate& gate);
        ~Place();
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// Takes the gate's lock if it comes free within @p limit.
        bool try_lock_for(std::chrono::milliseconds limit);

    private:
        DeviceGate& gate_;
    };

private:
    bool enter_again() JOVU_REQUIRES(mutex_);

    Mutex mutex_;
    ConditionVariable changed_;
    WaitQueue queue_ JOVU_GUARDED_BY(mutex_);
    std::thread::id owner_ JOVU_GUARDED_BY(mutex_);
    unsigned depth_ JOVU_GUARDED_BY(mutex_) = 0;
    unsigned places_ JOVU_GUARDED_BY(mutex_) = 0;
};

/// Holds the gate for a scope, having waited like everybody else.
using GateLock = ScopedLock<DeviceGate>;

/// Holds the gate for a scope, having gone ahead of everybody who merely locks it.
class JOVU_SCOPED_CAPABILITY FirstGateLock {
public:
    explicit FirstGateLock(DeviceGate& gate) JOVU_ACQUIRE(gate);
    ~FirstGateLock() JOVU_RELEASE() { gate_.unlock(); }
    FirstGateLock(const FirstGateLock&) = delete;
    FirstGateLock& operator=(const FirstGateLock&) = delete;

private:
    DeviceGate& gate_;
};

/// Unlocks, at the end of a scope, a gate that was taken through a Place.
class JOVU_SCOPED_CAPABILITY GateHolder {
public:
    explicit GateHolder(DeviceGate& gate) JOVU_REQUIRES(gate) : gate_(gate) {}
    ~GateHolder() JOVU_RELEASE() { gate_.unlock(); }
    GateHolder(const GateHolder&) = delete;
    GateHolder& operator=(const GateHolder&) = delete;

private:
    DeviceGate& gate_;
};

}  // namespace jovu
