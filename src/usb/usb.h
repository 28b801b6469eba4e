// SPDX-License-Identifier: Apache-2.0

/// @file
/// The operations of the USB backend: the library's only contact with the bus.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "jovu/usb_client.h"
#include "usb/connection.h"

/// The backend's state is process-wide (usb_backend.h), its devices are UsbDevice objects.
///
/// The backend runs while at least one client is registered: a watcher thread scans the bus when
/// a controller arrives or leaves and every 500 ms, opens and closes devices, and runs libusb's
/// event handling in between.
class JovuUsb {
public:
    /// Interface numbers of a device, and so its channels.
    enum jovu_usb_interface_t : std::uint32_t {
        JOVU_USB_INTERFACE_MESSAGES = 0,
        JOVU_USB_INTERFACE_JOBS = 1,
    };

    /// Adds a client to the end of an interface's list and starts the backend if it is not running.
    /// The client is not notified of devices that are open already.
    /// @param client stays the caller's and must unregister before it is destroyed.
    /// @throws JovuException "Failed to initialize libusb"; a std::system_error when no thread can
    ///     be started. JovuException also when called in a callback of the backend.
    static void client_register(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// Removes the client's first entry from an interface's list. When that list is then empty the
    /// backend stops, whether or not the other interface still has clients: the watcher ends,
    /// devices are closed on this thread, libusb is left. When the call returns, no call of the
    /// client for that interface is running. Takes up to the rest of a write in progress.
    /// @throws JovuException in a callback of the backend: it would wait for itself.
    static void client_unregister(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// For a thread in a callback, where client_unregister() would wait for itself: no call of the
    /// client for that interface begins after this one returns. The backend keeps running.
    static void client_detach(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// @return the connection with the device at an address; null if there is none.
    static std::shared_ptr<jovu::Connection> connection(JovuDeviceAddress address);

    /// As Connection::write(), to whichever device has the address now.
    static void write(const unsigned char* data, unsigned int length, JovuDeviceAddress address,
                      jovu_usb_interface_t interface);

    /// As JovuTransport::close().
    static void close(JovuDeviceAddress address);

    /// As JovuTransport::list_connected().
    static std::vector<JovuDeviceAddress> list_connected();

    /// As JovuTransport::list_attached(). Works also while the backend is not running.
    static std::vector<JovuUsbDevice> list_attached();

    /// As JovuTransport::reopen().
    static void reopen(JovuDeviceAddress address);

    /// As JovuTransport::set_device_filter().
    static void set_device_filter(JovuDeviceFilter filter);

    /// As JovuTransport::list_devices().
    static std::vector<JovuDeviceInfo> list_devices();

    /// As JovuTransport::is_watching().
    static bool is_watching() noexcept;

    /// @return true when the calling thread is in a callback of the backend: received data, or a
    ///     notification of a JovuUsbClient. Nothing may wait there for a transfer, for event
    ///     handling or for another thread's exchange.
    static bool in_callback() noexcept;

    /// Between these two (counted) no scan is made, and so no device opened.
    static void pause_scans() noexcept;
    static void resume_scans() noexcept;

    JovuUsb() = delete;
};

namespace jovu {

/// Unregisters a client exactly once, whichever thread calls first. When end() returns, the client
/// is unregistered for every caller.
class Registration {
public:
    /// @param unregister called at most once in the life of this object; if it throws, the
    ///     registration has not ended.
    template <class Unregister>
    void end(Unregister unregister) {
        const MutexLock lock(mutex_);
        if (ended_) return;
        unregister();
        ended_ = true;
    }

private:
    Mutex mutex_;  ///< Acquired before the backend's locks.
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
};

}  // namespace jovu
