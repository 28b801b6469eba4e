/// @file
/// The send locks of connected devices.
#pragma once

#include <memory>
#include <unordered_map>

#include "base/mutex.h"
#include "base/wait_queue.h"
#include "jovu/device_address.h"
#include "usb/usb.h"

namespace jovu {

/// Makes the exchanges with one opening of a device follow one another, in the order in which they
/// were asked for, whichever transport of the process they come from. Held for a whole exchange;
/// taken before the link's locks.
class SendLock {
public:
    explicit SendLock(JovuUsb::connection_t connection) : connection_(connection) {}

    /// Which opening of the device this is for. A sender that got its turn in time and writes too
    /// late does not reach another device at the same address.
    JovuUsb::connection_t connection() const noexcept { return connection_; }

    /// Waits for the turn as long as @p wanted says so.
    /// @param wanted called with the lock's own mutex held; may take a leaf.
    /// @return whether the caller has the turn, and has to leave().
    template <class Wanted>
    bool enter(Wanted wanted) {
        const MutexLock lock(mutex_);
        const WaitQueue::Place place(queue_);
        while (wanted()) {
            if (!busy_ && place.first()) {
                busy_ = true;
                return true;
            }
            changed_.wait(mutex_);
        }
        changed_.notify_all();
        return false;
    }

    void leave();

    /// Makes those who wait ask again whether they want to.
    void wake();

    /// Waits until nobody has the turn.
    void wait_idle();

private:
    const JovuUsb::connection_t connection_;
    Mutex mutex_;
    ConditionVariable changed_;
    WaitQueue queue_ JOVU_GUARDED_BY(mutex_);
    bool busy_ JOVU_GUARDED_BY(mutex_) = false;
};

/// One send lock per device that a transport has been told of; a device without one cannot be sent
/// to.
///
/// Changed in the order of the link's notices, on the link's threads, so a quick replug at one
/// address ends with the right lock. A lock that is taken out turns its queue away and lives until
/// the last one in it has gone.
class SendLocks {
public:
    /// A device is there: gives it the lock of its opening in place of any other.
    /// @return that lock, also when it was not given out any more.
    std::shared_ptr<SendLock> connect(JovuDeviceAddress address, JovuUsb::connection_t connection);

    /// A device has gone: takes its lock out.
    /// @return the lock, for waiting until it is idle; null when there was none.
    std::shared_ptr<SendLock> disconnect(JovuDeviceAddress address);

    /// Takes all locks out and gives out no more.
    void close();

    /// @return null when the device is not connected.
    std::shared_ptr<SendLock> find(JovuDeviceAddress address);

private:
    using Map = std::unordered_map<JovuDeviceAddress, std::shared_ptr<SendLock>>;

    Mutex mutex_;  ///< A leaf; never held while a send lock is.
    Map locks_ JOVU_GUARDED_BY(mutex_);
    bool closed_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
