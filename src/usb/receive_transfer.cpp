// SPDX-License-Identifier: Apache-2.0
#include "usb/receive_transfer.h"

#include <thread>

#include "jovu/exception.h"

namespace jovu {

ReceiveTransfer::ReceiveTransfer(std::size_t interface, ReceiveSink& sink)
    : interface_(interface), sink_(sink), transfer_(libusb_alloc_transfer(0)) {
    if (transfer_ == nullptr)
        throw JovuException("Failed to allocate rx transfer.", JovuError::usb_unavailable);
}

int ReceiveTransfer::submit(libusb_device_handle* handle) {
    handle_ = handle;
    const MutexLock lock(mutex_);
    return submit_again();
}

void ReceiveTransfer::become(State state) noexcept {
    state_ = state;
    rx_done_ = state == State::idle ? 1 : 0;
}

int ReceiveTransfer::submit_again() noexcept {
    libusb_fill_bulk_transfer(transfer_.get(), handle_, kReceiveEndpoint[interface_],
                              rx_buffer_.data(), kReceiveBufferSize, libusb_rx_data_callback, this,
                              0);
    // In flight before libusb has it: the completion may come before the call returns.
    become(State::in_flight);
    const int result = libusb_submit_transfer(transfer_.get());
    if (result != 0) become(State::idle);
    return result;
}

void ReceiveTransfer::stop() noexcept {
    const MutexLock lock(mutex_);
    stopped_ = true;
    if (state_ == State::in_flight) libusb_cancel_transfer(transfer_.get());
}

bool ReceiveTransfer::idle() noexcept {
    const MutexLock lock(mutex_);
    return state_ == State::idle;
}

void ReceiveTransfer::finish() noexcept {
    const MutexLock lock(mutex_);
    become(State::idle);
}

void ReceiveTransfer::libusb_rx_data_callback(libusb_transfer* transfer) noexcept {
    auto& self = *static_cast<ReceiveTransfer*>(transfer->user_data);
    {
        const MutexLock lock(self.mutex_);
        self.become(State::completing);
    }
    switch (transfer->status) {
        case LIBUSB_TRANSFER_STALL:
        case LIBUSB_TRANSFER_NO_DEVICE:
            self.rx_failed_ = true;
            self.sink_.receive_failed();
            self.finish();
            return;
        case LIBUSB_TRANSFER_CANCELLED:
            self.finish();
            return;
        case LIBUSB_TRANSFER_COMPLETED:
        case LIBUSB_TRANSFER_ERROR:
        case LIBUSB_TRANSFER_TIMED_OUT:
        case LIBUSB_TRANSFER_OVERFLOW:
            break;
    }
    if (transfer->actual_length > 0 && !self.abandoned_ &&
        !self.sink_.received(self.interface_, transfer->buffer,
                             static_cast<unsigned int>(transfer->actual_length))) {
        self.finish();
        return;
    }
    if (transfer->status != LIBUSB_TRANSFER_COMPLETED && transfer->actual_length == 0) {
        std::this_thread::sleep_for(kReceiveErrorPause);
    }
    const MutexLock lock(self.mutex_);
    if (self.stopped_) {
        self.become(State::idle);
    } else {
        self.submit_again();
    }
}

}  // namespace jovu
