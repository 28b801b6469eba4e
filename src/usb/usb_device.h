/// @file
/// One open device.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>

#include "jovu/device_address.h"
#include "jovu/exception.h"
#include "usb/libusb_owners.h"
#include "usb/receive_transfer.h"
#include "usb/usb.h"
#include "usb/usb_constants.h"

namespace jovu {

/// The device left the bus while it was being opened: nothing is wrong but the moment.
class DeviceGone : public JovuException {
    using JovuException::JovuException;
};

/// Receive transfers, one per channel.
struct Reception {
    explicit Reception(JovuDeviceAddress address)
        : transfers{ReceiveTransfer(0, address), ReceiveTransfer(1, address)} {}

    std::array<ReceiveTransfer, kInterfaceCount> transfers;
};

/// Reception that libusb did not give back in time, set aside for good: freeing a transfer that is
/// in flight, or closing the handle under it, would be worse than keeping it.
struct AbandonedReception {
    Context context;
    Handle handle;
    std::shared_ptr<Reception> reception;
};

/// A device that the link has opened, with reception on both channels.
///
/// Made, used and deleted with the device gate held, but where a member says otherwise.
class UsbDevice {
public:
    /// Opens the device and starts reception. When reception cannot be started the device stays
    /// without a handle, and sends to it fail.
    /// @throws JovuException when it cannot be found, opened or claimed, DeviceGone if it has left.
    UsbDevice(Context context, std::uint16_t vendor_id, std::uint16_t product_id,
              JovuDeviceAddress address);
    ~UsbDevice();
    UsbDevice(const UsbDevice&) = delete;
    UsbDevice& operator=(const UsbDevice&) = delete;

    JovuDeviceAddress address() const noexcept { return address_; }

    /// Which opening this is, unique in the process. Any thread.
    JovuUsb::connection_t connection() const noexcept { return connection_; }

    /// @return whether this is an opening of that very libusb device.
    bool is(libusb_device* device) const noexcept { return device_.get() == device; }

    /// Null once the device is closed.
    libusb_device_handle* handle() const noexcept { return handle_.get(); }

    /// @return whether the device can be written to. Any thread that keeps the device alive.
    bool usable() const noexcept { return open_ && !close_ordered_; }

    /// Tells the link's clients that the device is there.
    void announce();

    /// Orders a close, which the watcher carries out, and wakes the watcher. Any thread that keeps
    /// the device alive.
    /// @param wanted set before the watcher is woken; what it looks at.
    /// @return false when the device is closed or ordered to be closed already.
    bool order_close(std::atomic<bool>& wanted) noexcept;

    bool close_ordered() const noexcept { return close_ordered_; }

    /// @return whether reception has failed on both channels.
    bool reception_failed() const noexcept;

    /// Tells the clients that the device leaves, ends reception and closes the handle. Does nothing
    /// on a closed device.
    void close() noexcept;

private:
    void open(std::uint16_t vendor_id, std::uint16_t product_id);
    void claim_device(std::uint16_t vendor_id, std::uint16_t product_id);
    void release_device() noexcept;
    void cancel_reception() noexcept;
    void end_reception() noexcept;

    const Context context_;
    const JovuDeviceAddress address_;
    const JovuUsb::connection_t connection_;
    DeviceRef device_;
    Handle handle_;
    const std::shared_ptr<Reception> reception_;
    std::list<AbandonedReception> spare_;  ///< One node, made while memory can still be refused.
    bool announced_ = false;
    std::atomic<bool> open_{false};
    std::atomic<bool> close_ordered_{false};
};

}  // namespace jovu
