// SPDX-License-Identifier: Apache-2.0
#include "usb/usb_device.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <utility>

#include "base/never_destroyed.h"
#include "usb/client_list.h"
#include "usb/event_turn.h"

namespace jovu {
namespace {

using Clock = std::chrono::steady_clock;

JovuError error_of(int libusb_error) noexcept {
    switch (libusb_error) {
        case LIBUSB_ERROR_NO_DEVICE:
            return JovuError::disconnected;
        case LIBUSB_ERROR_TIMEOUT:
            return JovuError::send_timed_out;
        case LIBUSB_ERROR_PIPE:
            return JovuError::stalled;
        case LIBUSB_ERROR_ACCESS:
            return JovuError::not_permitted;
        case LIBUSB_ERROR_BUSY:
            return ClientList::in_callback() ? JovuError::in_callback : JovuError::busy;
        default:
            return JovuError::transfer_failed;
    }
}

/// The event turn for a scope, if it is wanted and free.
class HeldTurn {
public:
    HeldTurn(bool wanted, const Context& context) : held_(wanted && event_turn().take(context)) {}
    ~HeldTurn() {
        if (held_) event_turn().give_back();
    }
    HeldTurn(const HeldTurn&) = delete;
    HeldTurn& operator=(const HeldTurn&) = delete;

    explicit operator bool() const noexcept { return held_; }

private:
    const bool held_;
};

[[noreturn]] void fail_sending(int libusb_error) {
    throw JovuException("Send failed - libusb error: " + std::to_string(libusb_error),
                        error_of(libusb_error));
}

}  // namespace

UsbDevice::UsbDevice(Context context, libusb_device* device, JovuDeviceAddress address,
                     ClaimedHandle handle, std::atomic<bool>& cleanup_pending)
    : Connection(address),
      context_(std::move(context)),
      raw_context_(context_.get()),
      cleanup_pending_(cleanup_pending),
      device_(libusb_ref_device(device)),
      handle_(std::move(handle)),
      transfers_{ReceiveTransfer(0, *this), ReceiveTransfer(1, *this)} {}

bool UsbDevice::received(std::size_t interface, unsigned char* data, unsigned int length) noexcept {
    return client_list().dispatch(interface, data, length, address());
}

void UsbDevice::receive_failed() noexcept {
    cleanup_pending_ = true;
}

bool UsbDevice::to_be_removed() const noexcept {
    return removed_ || std::all_of(transfers_.begin(), transfers_.end(),
                                   [](const auto& transfer) { return transfer.rx_failed(); });
}

void UsbDevice::fail_not_open() const {
    throw JovuException("Send failed - Device no longer connected.", not_open_error());
}

void UsbDevice::check_writable(std::uint32_t interface) const {
    if (!open_ || close_ordered_) fail_not_open();
    if (interface >= kInterfaceCount)
        throw JovuException("Send failed - interface invalid.", JovuError::rejected);
}

void UsbDevice::write(std::initializer_list<Piece> pieces, std::uint32_t interface, Follow follow) {
    check_writable(interface);
    if (ClientList::in_callback()) {
        // In libusb's event handling a synchronous transfer is refused; in a notification it might
        // wait for a thread that wants to call the same client.
        for (const Piece& piece : pieces) {
            if (piece.length > 0) fail_sending(LIBUSB_ERROR_BUSY);
        }
        return;
    }
    if (!write_lock_.lock_while([this] { return open_.load(); })) fail_not_open();
    const std::unique_lock<FairLock> lock(write_lock_, std::adopt_lock);
    check_writable(interface);
    // A close that a callback orders meanwhile is carried out after the last piece.
    for (const Piece& piece : pieces)
        send(kSendEndpoint[interface], piece, follow);
}

void UsbDevice::send(std::uint8_t endpoint, const Piece& piece, Follow follow) {
    unsigned int offset = 0;
    unsigned int retries = 0;
    unsigned int empty = 0;
    while (offset < piece.length) {
        const int size = static_cast<int>(std::min<unsigned int>(piece.length - offset, INT_MAX));
        int transferred = 0;
        const int result = transfer(endpoint, piece.data + offset, size, follow, transferred);
        // A timed-out transfer may have moved some bytes. They are sent again: the retry repeats
        // the transfer as it was.
        const bool passing = result == LIBUSB_ERROR_TIMEOUT || result == LIBUSB_ERROR_BUSY;
        if (passing && retries < kSendRetries) {
            ++retries;
            continue;
        }
        if (result != 0) fail_sending(result);
        empty = transferred > 0 ? 0 : empty + 1;
        if (empty == kMaxEmptySends)
            throw JovuException("Send failed - device takes no data.", JovuError::send_timed_out);
        offset += static_cast<unsigned int>(std::clamp(transferred, 0, size));
        retries = 0;
    }
}

/// @return as libusb_bulk_transfer() does.
int UsbDevice::transfer(std::uint8_t endpoint, const unsigned char* data, int size, Follow follow,
                        int& transferred) {
    // A device whose transfer was not given back takes nothing more.
    if (kept_by != nullptr) fail_sending(LIBUSB_ERROR_BUSY);
    const int result = send_transfer_.submit(handle_.get(), endpoint, data, size);
    if (result != 0) return result;
    const Clock::duration limit = std::chrono::milliseconds(kSendTimeoutMs) + kDrainLimit;
    const Clock::duration longest_wait = kMaxSenderReliance + kSenderEventWait;
    const HeldTurn turn(follow == Follow::writes, context_);
    const auto wait = [&] {
        return turn ? send_transfer_.wait_handling(context_) : send_transfer_.wait(context_);
    };
    auto left = limit;
    for (auto begin = Clock::now(); !wait(); begin = Clock::now()) {
        // A client that is busy with received data delays all event handling. On this thread it
        // has prolonged the wait.
        left -= std::min(Clock::now() - begin, longest_wait);
        if (client_list().dispatching()) {
            left = limit;
        } else if (left < left.zero()) {
            // libusb keeps the pointer to the data but reads it no more: the kernel has copied what
            // was submitted.
            keep_until_exit(shared_from_this());
            fail_sending(LIBUSB_ERROR_TIMEOUT);
        }
    }
    return send_transfer_.result(transferred);
}

int UsbDevice::notify_connected() {
    int result = 0;
    connected_notified_ = true;
    client_list().notify_connected(shared_from_this(), [this, &result](std::size_t interface) {
        if (result == 0) result = transfers_.at(interface).submit(handle_.get());
    });
    return result;
}

/// Transfers are drained here, where no client mutex is held.
void UsbDevice::end_failed_start(int result) noexcept {
    if (result == LIBUSB_ERROR_NO_DEVICE) {
        mark_removed();
        cleanup_pending_ = true;
        return;
    }
    // A device without a handle is disconnected without a notification.
    close_begun_ = true;
    disconnect_notified_ = true;
    close_handle();
    // Last: a write that fails finds that this process does not have the device open.
    reject_writes();
}

void UsbDevice::reject_writes() noexcept {
    open_ = false;
    write_lock_.wake();
}

void UsbDevice::notify_disconnected() noexcept {
    const MutexLock lock(notify_mutex_);
    if (disconnect_notified_) return;
    begin_closing();
    if (connected_notified_) client_list().notify_disconnected(address());
    reject_writes();
    // Now, since a stuck write may delay the end of the close.
    cancel_transfers();
    disconnect_notified_ = true;
}

bool UsbDevice::order_close() noexcept {
    if (close_begun_ || close_ordered_) return false;
    set_closed_by_call(true);
    if (close_ordered_.exchange(true)) return false;
    cleanup_pending_ = true;
    interrupt_event_handling(raw_context_);
    return true;
}

bool UsbDevice::order_reopen() noexcept {
    if (!is_closed()) return false;
    reopen_ordered_ = true;
    return true;
}

bool UsbDevice::close() noexcept {
    const bool first = !close_begun_.exchange(true);
    if (first) set_closed_by_call(true);
    // Also when another thread has begun: that may be a watcher that has ended since.
    finish_close();
    return first;
}

bool UsbDevice::try_close() noexcept {
    if (closed_) return true;
    if (!close_begun_.exchange(true)) notify_disconnected();
    if (!disconnect_notified_ || !write_lock_.try_lock()) return false;
    close_handle();
    write_lock_.unlock();
    return true;
}

void UsbDevice::finish_close() noexcept {
    close_begun_ = true;
    notify_disconnected();
    write_lock_.lock();
    close_handle();
    write_lock_.unlock();
}

/// The caller holds write_lock_, or nobody else knows the device yet.
void UsbDevice::close_handle() noexcept {
    if (closed_) return;
    end_receiving();
    if (handle_ != nullptr && kept_by == nullptr) {
        for (ReceiveTransfer& transfer : transfers_)
            transfer.free();
        send_transfer_.free();
        handle_.reset();
        context_.reset();
    }
    closed_ = true;
}

void UsbDevice::cancel_transfers() noexcept {
    for (ReceiveTransfer& transfer : transfers_)
        transfer.stop();
}

void UsbDevice::end_receiving() noexcept {
    for (ReceiveTransfer& transfer : transfers_) {
        auto deadline = Clock::now() + kDrainLimit;
        for (cancel_transfers(); !transfer.idle(); cancel_transfers()) {
            // A client that is busy with received data, of whatever device, delays all event
            // handling. That is not libusb's fault.
            if (client_list().dispatching()) deadline = Clock::now() + kDrainLimit;
            const bool overdue = Clock::now() > deadline;
            handle_events(context_, kDrainSlice, transfer.rx_done());
            if (overdue && !transfer.idle() && !client_list().dispatching()) {
                // Freeing a transfer in flight, or closing the handle under it, would be worse than
                // keeping them.
                for (ReceiveTransfer& kept : transfers_)
                    kept.abandon();
                keep_until_exit(shared_from_this());
                return;
            }
        }
    }
}

}  // namespace jovu
