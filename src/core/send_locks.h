/// @file
/// The send locks of connected devices.
#pragma once

#include <atomic>
#include <memory>
#include <unordered_map>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "usb/usb.h"

namespace jovu {

/// Makes the exchanges with one opening of a device follow one another.
struct SendLock {
    explicit SendLock(JovuUsb::connection_t opening) : connection(opening) {}

    /// Held for one exchange. Taken before the link's locks.
    Mutex mutex;

    /// The opening of the device that this lock is for. A sender that got the lock in time and
    /// writes too late does not reach another device at the same address.
    const JovuUsb::connection_t connection;

    /// Set when the device has gone. Senders that still queue for the lock turn away.
    std::atomic<bool> retired{false};
};

/// One send lock per connected device; a device without one cannot be sent to.
///
/// Changed in the order of the link's notices, on the link's threads, so a quick replug at one
/// address ends with the right lock. A lock that is taken out lives until its last holder has let
/// go.
class SendLocks {
public:
    /// A device is there: gives it a fresh lock in place of any other.
    void connect(JovuDeviceAddress address, JovuUsb::connection_t connection);

    /// A device has gone: retires its lock.
    /// @return the lock, for waiting until its holder has let go; null when there was none.
    std::shared_ptr<SendLock> disconnect(JovuDeviceAddress address);

    /// Retires all locks and gives out no more.
    void close();

    /// @return null when the device is not connected.
    std::shared_ptr<SendLock> find(JovuDeviceAddress address);

private:
    Mutex mutex_;  ///< A leaf; never held while a send lock is waited for.
    std::unordered_map<JovuDeviceAddress, std::shared_ptr<SendLock>> locks_ JOVU_GUARDED_BY(mutex_);
    bool closed_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
