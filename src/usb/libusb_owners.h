// SPDX-License-Identifier: Apache-2.0

/// @file
/// Owners of libusb objects, and event handling. Each owner keeps alive what it depends on, so the
/// types give the order of destruction.
#pragma once

#include <libusb.h>

#include <chrono>
#include <cstddef>
#include <memory>

namespace jovu {

/// A libusb context; libusb_exit() runs when the last reference is released.
using Context = std::shared_ptr<libusb_context>;

/// The context of the process: the one in use if there is one, else a new one.
/// @return null when libusb cannot be initialised.
Context acquire_context();

/// @return the context in use; null if there is none.
Context current_context();

/// Handles events once; received data is dispatched on this thread. After a libusb error it sleeps
/// for a moment: the call has returned at once then, and callers loop.
/// @param limit how long to wait for events.
/// @param completed a flag that ends the wait when it is set; may be null.
void handle_events(const Context& context, std::chrono::milliseconds limit, int* completed);

/// Ends the event wait that is going on, or else the next one. Any thread, in a callback too.
void interrupt_event_handling(libusb_context* context) noexcept;

struct DeviceUnref {
    void operator()(libusb_device* device) const noexcept { libusb_unref_device(device); }
};
/// One reference to a libusb device.
using DeviceRef = std::unique_ptr<libusb_device, DeviceUnref>;

struct HandleClose {
    void operator()(libusb_device_handle* handle) const noexcept { libusb_close(handle); }
};
/// An open device handle.
using Handle = std::unique_ptr<libusb_device_handle, HandleClose>;

struct TransferFree {
    void operator()(libusb_transfer* transfer) const noexcept { libusb_free_transfer(transfer); }
};
/// A transfer, which must not be in flight when it is freed.
using Transfer = std::unique_ptr<libusb_transfer, TransferFree>;

/// A fresh enumeration of the bus.
class DeviceList {
public:
    explicit DeviceList(Context context) noexcept;
    ~DeviceList();
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;

    /// @return false when the enumeration failed; the list is then empty.
    explicit operator bool() const noexcept { return count_ >= 0; }

    libusb_device** begin() const noexcept { return list_; }
    libusb_device** end() const noexcept { return count_ > 0 ? list_ + count_ : list_; }

private:
    Context context_;
    libusb_device** list_ = nullptr;
    std::ptrdiff_t count_;
};

}  // namespace jovu
