// SPDX-License-Identifier: Apache-2.0
#include "usb/send_transfer.h"

#include <algorithm>
#include <chrono>

#include "jovu/exception.h"
#include "usb/usb_constants.h"

namespace jovu {
SendTransfer::SendTransfer() : transfer_(libusb_alloc_transfer(0)) {
    if (transfer_ == nullptr)
        throw JovuException("Failed to allocate tx transfer.", JovuError::usb_unavailable);
}

int SendTransfer::submit(libusb_device_handle* handle, std::uint8_t endpoint,
                         const unsigned char* data, int size) {
    // libusb reads the data only, but takes the pointer of an inward transfer as well.
    libusb_fill_bulk_transfer(transfer_.get(), handle, endpoint, const_cast<unsigned char*>(data),
                              size, completed, this, kSendTimeoutMs);
    // Before libusb has it: the completion may come before the call returns.
    set_done(0);
    reliance_ = kSenderReliance;
    const int result = libusb_submit_transfer(transfer_.get());
    if (result != 0) set_done(1);
    return result;
}

bool SendTransfer::wait(const Context& context) {
    if (wait_for_completion(reliance_)) return true;
    // Longer each time: the sender of a device that takes no data would handle the events of the
    // other devices, between two calls of the watcher.
    reliance_ = std::min(2 * reliance_, kMaxSenderReliance);
    if (libusb_event_handler_active(context.get()) == 0)
        handle_events(context, kSenderEventWait, &done_);
    return is_back();
}

bool SendTransfer::wait_handling(const Context& context) {
    if (is_back()) return true;
    handle_events(context, kSenderEventWait, &done_);
    return is_back();
}

bool SendTransfer::is_back() {
    const MutexLock lock(mutex_);
    return done_ != 0;
}

bool SendTransfer::wait_for_completion(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const MutexLock lock(mutex_);
    while (done_ == 0) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= left.zero()) return false;
        is_done_.wait_for(mutex_, left);
    }
    return true;
}

int SendTransfer::result(int& transferred) const noexcept {
    transferred = transfer_->actual_length;
    switch (transfer_->status) {
        case LIBUSB_TRANSFER_COMPLETED:
            return 0;
        case LIBUSB_TRANSFER_TIMED_OUT:
            return LIBUSB_ERROR_TIMEOUT;
        case LIBUSB_TRANSFER_STALL:
            return LIBUSB_ERROR_PIPE;
        case LIBUSB_TRANSFER_OVERFLOW:
            return LIBUSB_ERROR_OVERFLOW;
        case LIBUSB_TRANSFER_NO_DEVICE:
            return LIBUSB_ERROR_NO_DEVICE;
        case LIBUSB_TRANSFER_ERROR:
        case LIBUSB_TRANSFER_CANCELLED:
            return LIBUSB_ERROR_IO;
    }
    return LIBUSB_ERROR_OTHER;
}

void SendTransfer::set_done(int done) noexcept {
    const MutexLock lock(mutex_);
    done_ = done;
    // With the mutex held: the sender may free the transfer as soon as it has seen the flag.
    is_done_.notify_one();
}

void SendTransfer::completed(libusb_transfer* transfer) noexcept {
    static_cast<SendTransfer*>(transfer->user_data)->set_done(1);
}

}  // namespace jovu
