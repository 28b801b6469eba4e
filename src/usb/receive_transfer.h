// SPDX-License-Identifier: Apache-2.0

/// @file
/// Receiving from one endpoint of one device.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

#include "base/mutex.h"
#include "usb/libusb_owners.h"
#include "usb/usb_constants.h"

namespace jovu {

/// Takes what a receive transfer brings, on the thread that handles libusb's events.
class ReceiveSink {
public:
    /// @return false to end receiving on this interface.
    virtual bool received(std::size_t interface, unsigned char* data,
                          unsigned int length) noexcept = 0;

    /// Receiving has ended with a stall or because the device has gone.
    virtual void receive_failed() noexcept = 0;

protected:
    ~ReceiveSink() = default;
};

/// One bulk transfer that is resubmitted after every completion, with its buffer.
///
/// It must be idle when it is destroyed: stop() it, run event handling until idle(). The completion
/// callback runs on whichever thread handles libusb's events; everything else on the thread that
/// opens or closes the device.
class ReceiveTransfer {
public:
    /// @param interface 0 or 1; decides the endpoint.
    /// @param sink stays the caller's; must outlive the transfer's flight.
    /// @throws JovuException "Failed to allocate rx transfer."
    ReceiveTransfer(std::size_t interface, ReceiveSink& sink);
    ~ReceiveTransfer() = default;
    ReceiveTransfer(const ReceiveTransfer&) = delete;
    ReceiveTransfer& operator=(const ReceiveTransfer&) = delete;

    /// Submits the transfer for the first time.
    /// @param handle must stay open until the transfer is idle.
    /// @return 0, or libusb's error when it did not take it; it is idle then.
    int submit(libusb_device_handle* handle);

    /// Cancels the transfer if it is in flight and keeps it from being submitted again. To be
    /// repeated until idle(): a cancellation can be lost to a completion that is just arriving.
    void stop() noexcept;

    /// For a transfer that libusb has not given back: what may still arrive is dropped, since the
    /// address may belong to another connection by then.
    void abandon() noexcept { abandoned_ = true; }

    /// @return true if the transfer is neither submitted nor in its completion callback.
    bool idle() noexcept;

    /// Frees the libusb transfer, which refers to the handle and must not outlive it. Only stop()
    /// and the queries may be called afterwards.
    /// @pre idle(), and stopped.
    void free() noexcept { transfer_.reset(); }

    /// @return true once receiving has ended with a stall or because the device has gone.
    bool rx_failed() const noexcept { return rx_failed_; }

    /// The completion flag for libusb's event handling; only libusb reads it.
    int* rx_done() noexcept { return &rx_done_; }

private:
    enum class State { idle, in_flight, completing };

    static void LIBUSB_CALL libusb_rx_data_callback(libusb_transfer* transfer) noexcept;

    int submit_again() noexcept JOVU_REQUIRES(mutex_);
    void become(State state) noexcept JOVU_REQUIRES(mutex_);
    void finish() noexcept;

    const std::size_t interface_;
    ReceiveSink& sink_;
    Transfer transfer_;
    std::array<unsigned char, kReceiveBufferSize> rx_buffer_{};
    libusb_device_handle* handle_ = nullptr;  ///< Constant once submitted.
    std::atomic<bool> rx_failed_{false};
    std::atomic<bool> abandoned_{false};

    /// Keeps resubmission and stop() apart. A leaf but for libusb's own locks.
    Mutex mutex_;
    State state_ JOVU_GUARDED_BY(mutex_) = State::idle;
    bool stopped_ JOVU_GUARDED_BY(mutex_) = false;
    int rx_done_ = 1;  ///< 0 exactly while not idle. Written under mutex_.
};

}  // namespace jovu
