// SPDX-License-Identifier: Apache-2.0

/// @file
/// One connection with a device, as the layers above the USB backend use it.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "base/fair_lock.h"
#include "jovu/device_address.h"
#include "jovu/exception.h"

namespace jovu {

/// A device from the time it is opened until it is closed. A device that is plugged in anew gets
/// another object, also at the same address. Shared: it stays valid while a reference is held, and
/// writes fail once it is closed. Threads: any.
class Connection {
public:
    /// One of several writes that belong together.
    struct Piece {
        const unsigned char* data;  ///< Needed during the call only.
        unsigned int length;        ///< Bytes; with 0 nothing is sent.
    };

    enum class Follow {
        nothing,
        /// The calling thread may then handle libusb's events, and so dispatch received data, while
        /// it waits.
        writes,
    };

    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    JovuDeviceAddress address() const noexcept { return address_; }

    /// Held for a whole exchange (request and response), so that exchanges with one device follow
    /// one another, whichever client makes them. Pushes do not acquire it. Acquired before every
    /// lock of the USB backend.
    FairLock& exchange_lock() noexcept { return exchange_lock_; }

    /// @return true once closing has begun: no exchange begins any more. Threads that wait for the
    ///     exchange lock are woken then.
    bool closing() const noexcept { return closing_; }

    /// Why a device that is not open is not: the code of what fails because of it.
    JovuError not_open_error() const noexcept {
        return closed_by_call_ ? JovuError::closed : JovuError::disconnected;
    }

    /// Sends the pieces one after the other, with no other write to the device and no close between
    /// them, and returns when the device has taken them all. Writes to other devices go on
    /// meanwhile. Fails at once, as busy, on a thread that is in a callback of the backend.
    /// @param interface number of the interface, see JovuUsb::jovu_usb_interface_t.
    /// @param follow whether further writes follow at once.
    /// @throws JovuException "Send failed - ..."; bytes already sent stay sent.
    virtual void write(std::initializer_list<Piece> pieces, std::uint32_t interface,
                       Follow follow) = 0;

    /// As above, for a write that stands alone.
    void write(std::initializer_list<Piece> pieces, std::uint32_t interface) {
        write(pieces, interface, Follow::nothing);
    }

protected:
    explicit Connection(JovuDeviceAddress address) : address_(address) {}

    /// Whether JovuTransport::close() has closed the device, or ordered that, and it is attached
    /// still. Set before writes and exchanges fail because of the close.
    void set_closed_by_call(bool closed) noexcept { closed_by_call_ = closed; }

    /// Ends the acceptance of exchanges.
    void begin_closing() noexcept {
        closing_ = true;
        exchange_lock_.wake();
    }

private:
    const JovuDeviceAddress address_;
    FairLock exchange_lock_;
    std::atomic<bool> closing_{false};
    std::atomic<bool> closed_by_call_{false};
};

}  // namespace jovu
