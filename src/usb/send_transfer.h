// SPDX-License-Identifier: Apache-2.0

/// @file
/// Sending to one device.
#pragma once

#include <chrono>
#include <cstdint>

#include "base/mutex.h"
#include "usb/libusb_owners.h"
#include "usb/usb_constants.h"

namespace jovu {

/// One outgoing bulk transfer, which one thread at a time submits and waits for.
///
/// With libusb's synchronous call every sender of the process wakes at each event of each device.
/// Here a completion wakes its own sender alone.
class SendTransfer {
public:
    /// @throws JovuException "Failed to allocate tx transfer."
    SendTransfer();
    ~SendTransfer() = default;
    SendTransfer(const SendTransfer&) = delete;
    SendTransfer& operator=(const SendTransfer&) = delete;

    /// Submits the transfer with a time-out of kSendTimeoutMs.
    /// @param data must stay as it is until the transfer is back; @p size is in bytes.
    /// @pre wait() has returned true since the last submission.
    /// @return 0, or libusb's error when it did not take the transfer.
    int submit(libusb_device_handle* handle, std::uint8_t endpoint, const unsigned char* data,
               int size);

    /// Waits a moment for libusb to give the transfer back. Handles events itself when no other
    /// thread does: the watcher may scan the bus, or have ended. Not in a callback.
    /// @return true once the transfer is back, or was never submitted.
    bool wait(const Context& context);

    /// The same for a sender that has the event turn: handles events on this thread.
    bool wait_handling(const Context& context);

    /// @param transferred receives the bytes that the device took.
    /// @return 0 or a libusb error, as libusb_bulk_transfer() would.
    /// @pre the transfer is back.
    int result(int& transferred) const noexcept;

    /// Frees the libusb transfer, which refers to the handle and must not outlive it.
    /// @pre the transfer is back; nothing is called afterwards.
    void free() noexcept { transfer_.reset(); }

private:
    static void LIBUSB_CALL completed(libusb_transfer* transfer) noexcept;

    bool wait_for_completion(std::chrono::milliseconds limit);
    bool is_back();
    void set_done(int done) noexcept;

    Transfer transfer_;
    /// The next wait() relies on another thread for this long; grows while the transfer is in
    /// flight.
    std::chrono::milliseconds reliance_ = kSenderReliance;
    Mutex mutex_;  ///< A leaf.
    ConditionVariable is_done_;
    int done_ = 1;  ///< 0 exactly while in flight. Written under mutex_; libusb reads it too.
};

}  // namespace jovu
