// SPDX-License-Identifier: Apache-2.0

/// @file
/// One open device.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "base/fair_lock.h"
#include "base/mutex.h"
#include "jovu/exception.h"
#include "usb/connection.h"
#include "usb/libusb_owners.h"
#include "usb/receive_transfer.h"
#include "usb/send_transfer.h"
#include "usb/usb_constants.h"

namespace jovu {

/// A device that the backend has opened, with receiving on both channels.
///
/// Closing has two steps. The first notifies the clients, after which nothing new is sent; the
/// second waits for the write in progress, ends receiving and closes the handle. The watcher and
/// threads in a callback do not wait for that write: see try_close() and order_close().
class UsbDevice final : public Connection,
                        public std::enable_shared_from_this<UsbDevice>,
                        private ReceiveSink {
public:
    /// A device that has been opened; connect() makes a connection of it. Shared from the start.
    /// @param cleanup_pending set when the watcher has to look at the device; outlives it.
    /// @throws JovuException when a transfer cannot be allocated.
    UsbDevice(Context context, libusb_device* device, JovuDeviceAddress address,
              ClaimedHandle handle, std::atomic<bool>& cleanup_pending);
    /// The device is closed by now.
    ~UsbDevice() override = default;

    using Connection::write;
    void write(std::initializer_list<Piece> pieces, std::uint32_t interface,
               Follow follow) override;

    /// Makes the device known by @p enter, starts receiving and notifies the clients that it is
    /// connected. Writes and closes by other threads wait until that is done. When receiving cannot
    /// be started, the device remains without a handle, and writes to it fail. Passes on what
    /// @p enter or a client throws; the device is then to be closed.
    template <class Enter>
    void connect(Enter enter) {
        const std::lock_guard<FairLock> writing(write_lock_);
        int result = 0;
        {
            const MutexLock notifying(notify_mutex_);
            enter();
            result = notify_connected();
        }
        if (result != 0) end_failed_start(result);
    }

    /// Closes the device; waits for the write in progress. Not in a callback.
    /// @return false when it is closed, or another thread has begun to close it.
    bool close() noexcept;

    /// Rejects writes and exchanges from now on.
    void reject_writes() noexcept;

    /// Orders a close, which the watcher carries out, and wakes the watcher. Any thread, in a
    /// callback too.
    /// @return false when the device is closed, or ordered to be closed already.
    bool order_close() noexcept;
    bool close_ordered() const noexcept { return close_ordered_; }

    /// Has the next scan open the device anew.
    /// @return false unless it is closed, or ordered to be closed.
    bool order_reopen() noexcept;
    bool reopen_ordered() const noexcept { return reopen_ordered_; }

    /// @return whether it is closed, or ordered to be closed.
    bool is_closed() const noexcept { return closed_ || close_begun_ || close_ordered_; }

    /// Closes the device unless a write or another thread's close is in progress; to be called
    /// again then. For the watcher, which waits for neither.
    /// @return true once the device is closed.
    bool try_close() noexcept;

    /// Closes the device, or waits for another thread that does. For the end of the backend.
    void finish_close() noexcept;

    /// For the watcher alone, as the members below: whether this is a connection with that very
    /// libusb device.
    bool is(libusb_device* device) const noexcept { return device_.get() == device; }

    /// Marks a device that is to be closed and removed from the table.
    void mark_removed() noexcept {
        removed_ = true;
        set_closed_by_call(false);
    }

    /// @return true when the device is to be removed: it is marked, or no channel receives.
    bool to_be_removed() const noexcept;

    /// Releases the reference to the libusb device. The device is closed.
    void release_device() noexcept { device_.reset(); }

    /// This and the next as keep_until_exit() needs them.
    std::shared_ptr<UsbDevice> kept_by;
    UsbDevice* kept_before = nullptr;

private:
    bool received(std::size_t interface, unsigned char* data,
                  unsigned int length) noexcept override;
    void receive_failed() noexcept override;

    /// @return the result of the first submission that failed, or 0.
    int notify_connected() JOVU_REQUIRES(notify_mutex_);
    void end_failed_start(int result) noexcept;
    void end_receiving() noexcept;
    void cancel_transfers() noexcept;
    void notify_disconnected() noexcept;
    void close_handle() noexcept;
    [[noreturn]] void fail_not_open() const;
    void check_writable(std::uint32_t interface) const;
    void send(std::uint8_t endpoint, const Piece& piece, Follow follow);
    int transfer(std::uint8_t endpoint, const unsigned char* data, int size, Follow follow,
                 int& transferred);

    Context context_;  ///< Released with the handle: the last reference leaves libusb.
    libusb_context* const raw_context_;
    std::atomic<bool>& cleanup_pending_;
    DeviceRef device_;
    ClaimedHandle handle_;  ///< Guarded by write_lock_ once the device is open.
    std::array<ReceiveTransfer, kInterfaceCount> transfers_;
    SendTransfer send_transfer_;  ///< Used with write_lock_ held.

    /// Held for a write, during connect(), and for the second step of a close. Acquired before
    /// notify_mutex_. Waiting writers give up once the device is not open_ any more.
    FairLock write_lock_;
    /// Held for the connected notification, and for the first step of a close.
    Mutex notify_mutex_;
    bool connected_notified_ JOVU_GUARDED_BY(notify_mutex_) = false;
    std::atomic<bool> open_{true};
    std::atomic<bool> close_begun_{false};
    std::atomic<bool> disconnect_notified_{false};  ///< Or none is to be made.
    std::atomic<bool> closed_{false};
    std::atomic<bool> close_ordered_{false};
    std::atomic<bool> reopen_ordered_{false};
    bool removed_ = false;  ///< Touched by the watcher alone.
};

}  // namespace jovu
