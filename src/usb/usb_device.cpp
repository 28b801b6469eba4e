#include "usb/usb_device.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "usb/delivery.h"
#include "usb/event_handling.h"

namespace jovu {
namespace {

/// How long a closing device waits for events before it cancels its transfers again.
constexpr std::chrono::milliseconds kDrainSlice{20};

std::atomic<JovuUsb::connection_t> last_connection{JovuUsb::kNoConnection};

struct Abandonment {
    Mutex mutex;
    std::list<AbandonedReception> list JOVU_GUARDED_BY(mutex);
};

void abandon(std::list<AbandonedReception>& what) noexcept {
    static NeverDestroyed<Abandonment> abandonment;
    Abandonment& all = abandonment.get();
    const MutexLock lock(all.mutex);
    all.list.splice(all.list.end(), what);
}

/// Throws what a failed libusb call on a device means.
[[noreturn]] void fail(int result, const char* message) {
    if (result == LIBUSB_ERROR_NO_DEVICE) throw DeviceGone(message);
    throw JovuException(message);
}

}  // namespace

UsbDevice::UsbDevice(Context context, std::uint16_t vendor_id, std::uint16_t product_id,
                     JovuDeviceAddress address)
    : context_(std::move(context)),
      address_(address),
      connection_(++last_connection),
      reception_(std::make_shared<Reception>(address)),
      spare_(1) {
    open(vendor_id, product_id);
}

UsbDevice::~UsbDevice() {
    close();
}

void UsbDevice::open(std::uint16_t vendor_id, std::uint16_t product_id) {
    claim_device(vendor_id, product_id);
    open_ = true;
    for (ReceiveTransfer& transfer : reception_->transfers) {
        const int result = transfer.submit(handle_.get());
        if (result == 0) continue;
        open_ = false;
        end_reception();
        release_device();
        if (result == LIBUSB_ERROR_NO_DEVICE) throw DeviceGone("Failed to open libusb device.");
        return;
    }
}

void UsbDevice::claim_device(std::uint16_t vendor_id, std::uint16_t product_id) {
    const DeviceList list(context_);
    if (!list) throw JovuException("Failed to get libusb device list.");
    for (libusb_device* device : list) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) < 0) {
            throw JovuException("Failed to get libusb device descriptor.");
        }
        if (descriptor.idVendor != vendor_id || descriptor.idProduct != product_id ||
            libusb_get_bus_number(device) != address_.bus ||
            libusb_get_device_address(device) != address_.address) {
            continue;
        }
        libusb_device_handle* raw = nullptr;
        int result = libusb_open(device, &raw);
        if (result < 0) fail(result, "Failed to open libusb device.");
        Handle handle(raw);
        result = libusb_claim_interface(raw, kClaimedInterface);
        if (result < 0) fail(result, "Failed to claim libusb device.");
        handle_ = std::move(handle);
        device_.reset(libusb_ref_device(device));
        return;
    }
    throw DeviceGone("Failed to find desired device.");
}

void UsbDevice::release_device() noexcept {
    if (handle_ == nullptr) return;
    libusb_release_interface(handle_.get(), kClaimedInterface);
    handle_.reset();
}

void UsbDevice::announce() {
    announced_ = true;
    notify_connected(address_);
}

bool UsbDevice::order_close(std::atomic<bool>& wanted) noexcept {
    if (!open_ || close_ordered_.exchange(true)) return false;
    wanted = true;
    interrupt_event_handling(context_.get());
    return true;
}

bool UsbDevice::reception_failed() const noexcept {
    return std::all_of(reception_->transfers.begin(), reception_->transfers.end(),
                       [](const ReceiveTransfer& transfer) { return transfer.rx_failed(); });
}

void UsbDevice::cancel_reception() noexcept {
    for (ReceiveTransfer& transfer : reception_->transfers)
        transfer.stop();
}

void UsbDevice::close() noexcept {
    if (handle_ == nullptr) return;
    if (announced_) notify_disconnected(address_);
    open_ = false;
    end_reception();
    release_device();
}

void UsbDevice::end_reception() noexcept {
    using Clock = std::chrono::steady_clock;
    for (ReceiveTransfer& transfer : reception_->transfers) {
        auto deadline = Clock::now() + kDrainLimit;
        for (cancel_reception(); !transfer.idle(); cancel_reception()) {
            // A client that is busy with a delivery, of whatever device, holds up all event
            // handling, for which libusb cannot be blamed.
            if (delivery_in_progress()) deadline = Clock::now() + kDrainLimit;
            const bool overdue = Clock::now() > deadline;
            handle_events(context_, kDrainSlice, transfer.rx_done());
            if (overdue && !transfer.idle() && !delivery_in_progress()) {
                for (ReceiveTransfer& kept : reception_->transfers)
                    kept.disown();
                spare_.front() = {context_, std::move(handle_), reception_};
                abandon(spare_);
                return;
            }
        }
    }
}

}  // namespace jovu
