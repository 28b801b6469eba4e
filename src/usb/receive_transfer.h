/// @file
/// Reception on one endpoint of one device.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "usb/libusb_owners.h"
#include "usb/usb_constants.h"

namespace jovu {

/// One bulk transfer that is resubmitted after every completion, with its buffer.
///
/// It must be idle when it is destroyed: stop() it, run event handling until idle(). The completion
/// callback runs on whichever thread handles libusb's events; everything else on the thread that
/// opens or closes the device, with the device gate held.
class ReceiveTransfer {
public:
    /// @param interface 0 or 1; decides the endpoint and whose clients get the data.
    /// @throws JovuException "Failed to allocate rx transfer."
    ReceiveTransfer(std::size_t interface, JovuDeviceAddress address);
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

    /// Keeps what may still come from being delivered: libusb has not given the transfer back, and
    /// another opening of a device may have the address by then.
    void disown() noexcept { disowned_ = true; }

    /// @return whether libusb has nothing of it: not in flight, and no completion being handled.
    bool idle() noexcept;

    /// @return whether reception ended with a stall or because the device has gone.
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
    const JovuDeviceAddress address_;
    const Transfer transfer_;
    std::array<unsigned char, kReceiveBufferSize> rx_buffer_{};
    libusb_device_handle* handle_ = nullptr;  ///< Constant once submitted.
    std::atomic<bool> rx_failed_{false};
    std::atomic<bool> disowned_{false};

    /// Keeps resubmission and stop() apart. A leaf but for libusb's own locks.
    Mutex mutex_;
    State state_ JOVU_GUARDED_BY(mutex_) = State::idle;
    bool stopped_ JOVU_GUARDED_BY(mutex_) = false;
    int rx_done_ = 1;  ///< 0 exactly while not idle. Written under mutex_.
};

}  // namespace jovu
