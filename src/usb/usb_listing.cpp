/// @file
/// Listing devices, and closing one.
#include "jovu/exception.h"
#include "usb/delivery.h"
#include "usb/link.h"
#include "usb/usb.h"

using jovu::link;
using jovu::Link;
using jovu::UsbDevice;

namespace {

std::int32_t kind_of(std::uint16_t product_id) {
    switch (product_id) {
        case jovu::kProductOpened:
            return 1;
        case jovu::kProductListed:
            return 2;
        default:
            return 0;
    }
}

/// In a delivery the gate may be held by a sender that waits for this very thread, so the close is
/// left to the watcher.
bool order_close(Link& state, JovuDeviceAddress address) {
    const jovu::MutexLock lock(state.directory_mutex);
    const auto found = state._connected_devices.find(address);
    return found != state._connected_devices.end() &&
           found->second->order_close(state.sweep_wanted);
}

bool close_now(Link& state, JovuDeviceAddress address) {
    const jovu::GateLock gate(state._connected_devices_mutex);
    UsbDevice* const device = state.device_at(address);
    if (device == nullptr || device->handle() == nullptr) return false;
    // Ordered already, it counts as closed. The watcher may be no more, so it is done here.
    const bool ordered = device->close_ordered();
    device->close();
    return !ordered;
}

}  // namespace

void JovuUsb::close(JovuDeviceAddress address) {
    Link& state = link();
    const bool closed =
        jovu::delivering() ? order_close(state, address) : close_now(state, address);
    if (!closed) throw JovuException("Close failed - Device no longer connected.");
}

std::vector<JovuDeviceAddress> JovuUsb::list_connected() {
    return link().addresses();
}

std::vector<JovuUsbDevice> JovuUsb::list_attached() {
    // The context stays for this call even if the link goes down meanwhile.
    const jovu::Context context = jovu::acquire_context();
    if (context == nullptr) throw JovuException("Failed to get libusb device list.");
    const jovu::DeviceList list(context);
    if (!list) throw JovuException("Failed to get libusb device list.");
    std::vector<JovuUsbDevice> attached;
    for (libusb_device* device : list) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) < 0 ||
            descriptor.idVendor != JOVU_USB_VENDOR_ID) {
            continue;
        }
        attached.push_back({kind_of(descriptor.idProduct), libusb_get_port_number(device)});
    }
    return attached;
}

JovuUsb::connection_t JovuUsb::connection(JovuDeviceAddress address) {
    Link& state = link();
    const jovu::MutexLock lock(state.directory_mutex);
    const auto found = state._connected_devices.find(address);
    return found == state._connected_devices.end() ? kNoConnection : found->second->connection();
}

bool JovuUsb::is_watching() noexcept {
    return !link().watcher_failed;
}

bool JovuUsb::delivering() noexcept {
    return jovu::delivering();
}
