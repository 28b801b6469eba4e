// SPDX-License-Identifier: Apache-2.0

/// @file
/// The registered clients and how they are called.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "jovu/usb_client.h"
#include "usb/usb_constants.h"

namespace jovu {

/// Counts the scan pauses that exist.
class ScanPauses {
public:
    void begin() noexcept {
        const MutexLock lock(mutex_);
        ++active_;
    }
    void end() noexcept {
        const MutexLock lock(mutex_);
        if (--active_ == 0) ++generation_;
    }
    bool active() const noexcept {
        const MutexLock lock(mutex_);
        return active_ != 0;
    }

    /// How often the last pause has ended.
    std::uint64_t generation() const noexcept {
        const MutexLock lock(mutex_);
        return generation_;
    }

    /// @return the first generation in which a client that registers now may be called: a client
    ///     that registers under a pause is still being constructed.
    std::uint64_t first_callable() const noexcept {
        const MutexLock lock(mutex_);
        return active_ != 0 ? generation_ + 1 : 0;
    }

private:
    mutable Mutex mutex_;  ///< A leaf.
    unsigned active_ JOVU_GUARDED_BY(mutex_) = 0;
    std::uint64_t generation_ JOVU_GUARDED_BY(mutex_) = 0;
};

/// The clients of both interfaces. Calls for one interface never overlap: its mutex is held during
/// each. A thread inside such a call waits neither for a transfer nor for a device lock, because
/// the thread that handles libusb's events may be waiting for the same mutex.
class ClientList {
public:
    ScanPauses pauses;

    void add(JovuUsbClient& client, std::size_t interface);

    /// Removes the client's first entry. When it returns, no call of the client for this interface
    /// is in progress on another thread.
    /// @return true when the interface has no client left.
    bool remove(JovuUsbClient& client, std::size_t interface);

    /// Removes the client's last entry; for a registration that failed.
    void remove_last(std::size_t interface);

    /// For a thread in a callback: no call of the client for the interface begins after it returns.
    void detach(JovuUsbClient& client, std::size_t interface);

    /// Hands received bytes to every client of an interface, in order of registration, and then
    /// zeroes them. Called by libusb's C code, so nothing is thrown: an exception is stored until
    /// rethrow_error().
    /// @return false when a client threw; the clients after it were not called.
    bool dispatch(std::size_t interface, unsigned char* data, unsigned int length,
                  JovuDeviceAddress address) noexcept;

    /// Notifies the clients of interface 0, then those of interface 1. Passes on what one throws.
    /// @param start_receiving called for each interface before its clients, with its mutex held: no
    ///     data is dispatched before the notification.
    void notify_connected(const std::shared_ptr<Connection>& connection,
                          const std::function<void(std::size_t interface)>& start_receiving);

    /// The same for a device that is being closed; every client is called, and what one throws is
    /// stored.
    void notify_disconnected(JovuDeviceAddress address) noexcept;

    /// Notifies the clients of interface 0 of a device that cannot be opened. What one throws is
    /// stored.
    void notify_unavailable(const JovuDeviceInfo& device) noexcept;

    /// Throws the first exception stored since the last call, if any.
    void rethrow_error();
    void forget_error() noexcept;

    /// @return true on a thread that is in dispatch() or a notification.
    static bool in_callback() noexcept;

    /// @return true while any thread is in dispatch().
    bool dispatching() const noexcept { return dispatches_ > 0; }

private:
    struct Entry {
        JovuUsbClient* client;           ///< Null once the client is detached.
        std::uint64_t first_generation;  ///< Of scan pauses, in which the client may be called.
    };
    struct Interface {
        RecursiveMutex _registered_client_mutex;
        std::vector<Entry> _registered_client_list JOVU_GUARDED_BY(_registered_client_mutex);
    };

    template <class Call>
    void call_each(Interface& interface, Call call)
        JOVU_REQUIRES(interface._registered_client_mutex);
    static void remove_detached(Interface& interface)
        JOVU_REQUIRES(interface._registered_client_mutex);
    void store_error(std::exception_ptr error) noexcept;

    std::array<Interface, kInterfaceCount> interfaces_;
    std::atomic<int> dispatches_{0};  ///< Over all threads.

    Mutex error_mutex_;  ///< A leaf.
    std::exception_ptr error_ JOVU_GUARDED_BY(error_mutex_);
};

/// The list of the process; never destroyed.
ClientList& client_list();

}  // namespace jovu
