/// @file
/// Owners of libusb objects. Each keeps alive what it depends on, so the order of destruction is a
/// property of the types.
#pragma once

#include <libusb.h>

#include <cstddef>
#include <memory>

namespace jovu {

/// A libusb context; the last user to let go leaves libusb.
using Context = std::shared_ptr<libusb_context>;

/// The context of the process: the one in use if there is one, else a new one.
/// @return null when libusb cannot be initialised.
Context acquire_context();

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
