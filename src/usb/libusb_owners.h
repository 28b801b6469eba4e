// SPDX-License-Identifier: Apache-2.0

/// @file
/// Owners of libusb objects, and event handling. Each owner keeps alive what it depends on, so the
/// types give the order of destruction.
#pragma once

#include <libusb.h>

#include <atomic>
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

struct ClaimedHandleClose {
    void operator()(libusb_device_handle* handle) const noexcept;
};
/// A handle with kClaimedInterface claimed.
using ClaimedHandle = std::unique_ptr<libusb_device_handle, ClaimedHandleClose>;

/// Opens a device and claims its interface.
/// @param claimed receives the handle; stays as it is on failure.
/// @return 0 or libusb's error.
int open_and_claim(libusb_device* device, ClaimedHandle& claimed) noexcept;

struct TransferFree {
    void operator()(libusb_transfer* transfer) const noexcept { libusb_free_transfer(transfer); }
};
/// A transfer, which must not be in flight when it is freed.
using Transfer = std::unique_ptr<libusb_transfer, TransferFree>;

/// Sets a flag, and ends the event wait that is going on, when a controller arrives or leaves.
/// Where libusb cannot tell, it never does.
class HotplugNotice {
public:
    /// @param flag set on the thread that handles events, and perhaps once more after the notice
    ///     has been destroyed; outlives the context.
    HotplugNotice(Context context, std::atomic<bool>& flag) noexcept;
    ~HotplugNotice();
    HotplugNotice(const HotplugNotice&) = delete;
    HotplugNotice& operator=(const HotplugNotice&) = delete;

private:
    const Context context_;
    libusb_hotplug_callback_handle handle_ = 0;
    const bool registered_;
};

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
