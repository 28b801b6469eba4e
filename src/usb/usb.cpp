// SPDX-License-Identifier: Apache-2.0
#include "usb/usb.h"

#include <string>
#include <thread>
#include <utility>

#include "jovu/exception.h"
#include "usb/attached_device.h"
#include "usb/client_list.h"
#include "usb/usb_backend.h"

using jovu::client_list;
using jovu::MutexLock;
using jovu::usb_backend;
using jovu::UsbBackend;

namespace {

void start(UsbBackend& backend) JOVU_REQUIRES(backend.lifecycle_mutex) {
    jovu::Context context = jovu::acquire_context();
    if (context == nullptr)
        throw JovuException("Failed to initialize libusb", JovuError::usb_unavailable);
    client_list().forget_error();
    backend._run_device_hotplug_thread = true;
    backend.watcher_failed = false;
    backend._device_hotplug_thread =
        std::thread([context] { jovu::device_status_thread_entry(context); });
    backend._libusb_ctx = std::move(context);
}

void stop(UsbBackend& backend) JOVU_REQUIRES(backend.lifecycle_mutex) {
    backend._run_device_hotplug_thread = false;
    jovu::interrupt_event_handling(backend._libusb_ctx.get());
    backend._device_hotplug_thread.join();
    backend.remove_all();
    backend.unopened.replace({});  // Its references to devices end before the context.
    backend._libusb_ctx.reset();
}

/// Starting and stopping wait for the watcher, and so for every callback.
void refuse_in_callback(const char* what) {
    if (JovuUsb::in_callback()) {
        throw JovuException(std::string(what) + " failed - called from inside a callback.",
                            JovuError::in_callback);
    }
}

[[noreturn]] void fail_listing() {
    throw JovuException("Failed to get libusb device list.", JovuError::usb_unavailable);
}

/// Calls a function with every device of the accepted vendor and its descriptor.
template <class Call>
void for_each_attached(Call call) {
    // The context remains for this call even if the backend stops meanwhile.
    const jovu::Context context = jovu::acquire_context();
    if (context == nullptr) fail_listing();
    const jovu::DeviceList list(context);
    if (!list) fail_listing();
    for (libusb_device* device : list) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) >= 0 &&
            descriptor.idVendor == JOVU_USB_VENDOR_ID) {
            call(device, descriptor);
        }
    }
}

JovuDeviceState state_of(libusb_device* device, const libusb_device_descriptor& descriptor,
                         const JovuDeviceInfo& info, const JovuDeviceFilter* filter) {
    if (descriptor.idProduct != jovu::kProductOpened) return JovuDeviceState::other_kind;
    UsbBackend& backend = usb_backend();
    const auto known = backend.device_at(info.address);
    if (known != nullptr && !known->is_closed()) return JovuDeviceState::open;
    if (filter != nullptr && !filter->matches(info)) return JovuDeviceState::left_out;
    if (known != nullptr && !known->reopen_ordered()) {
        return known->not_open_error() == JovuError::closed ? JovuDeviceState::closed
                                                            : JovuDeviceState::failed;
    }
    return backend.unopened.reason(device).value_or(JovuDeviceState::waiting);
}

/// Ends the watcher's event wait, if it runs.
void wake_watcher() noexcept {
    // The context remains for this call even if the backend stops meanwhile.
    if (const jovu::Context context = jovu::current_context())
        jovu::interrupt_event_handling(context.get());
}

/// Has the watcher, if it runs, scan now.
void request_scan() {
    usb_backend().scan_requested = true;
    wake_watcher();
}

bool close_device(jovu::UsbDevice& device) {
    if (JovuUsb::in_callback()) return device.order_close();
    // Ordered already, it counts as closed. It is closed here, since the watcher may have ended.
    const bool ordered = device.close_ordered();
    return device.close() && !ordered;
}

}  // namespace

void JovuUsb::client_register(JovuUsbClient& client, jovu_usb_interface_t interface) {
    refuse_in_callback("Register");
    UsbBackend& backend = usb_backend();
    const MutexLock lifecycle(backend.lifecycle_mutex);
    client_list().add(client, interface);
    if (backend._device_hotplug_thread.joinable()) return;
    // The client is already listed, so the first scan notifies it.
    try {
        start(backend);
    } catch (...) {
        client_list().remove_last(interface);
        throw;
    }
}

void JovuUsb::client_unregister(JovuUsbClient& client, jovu_usb_interface_t interface) {
    refuse_in_callback("Unregister");
    UsbBackend& backend = usb_backend();
    const MutexLock lifecycle(backend.lifecycle_mutex);
    const bool last = client_list().remove(client, interface);
    if (last && backend._device_hotplug_thread.joinable()) stop(backend);
}

void JovuUsb::client_detach(JovuUsbClient& client, jovu_usb_interface_t interface) {
    client_list().detach(client, interface);
}

std::shared_ptr<jovu::Connection> JovuUsb::connection(JovuDeviceAddress address) {
    return usb_backend().device_at(address);
}

void JovuUsb::write(const unsigned char* data, unsigned int length, JovuDeviceAddress address,
                    jovu_usb_interface_t interface) {
    const auto device = connection(address);
    if (device == nullptr)
        throw JovuException("Send failed - Device no longer connected.", JovuError::disconnected);
    device->write({{data, length}}, interface);
}

void JovuUsb::close(JovuDeviceAddress address) {
    const auto device = usb_backend().device_at(address);
    if (device == nullptr || !close_device(*device)) {
        throw JovuException("Close failed - Device no longer connected.",
                            device == nullptr ? JovuError::disconnected : device->not_open_error());
    }
}

std::vector<JovuDeviceAddress> JovuUsb::list_connected() {
    UsbBackend& backend = usb_backend();
    const MutexLock lock(backend._connected_devices_mutex);
    std::vector<JovuDeviceAddress> addresses;
    addresses.reserve(backend._connected_devices.size());
    for (const auto& entry : backend._connected_devices)
        addresses.push_back(entry.first);
    return addresses;
}

std::vector<JovuUsbDevice> JovuUsb::list_attached() {
    std::vector<JovuUsbDevice> attached;
    for_each_attached([&](libusb_device* device, const libusb_device_descriptor& descriptor) {
        attached.push_back({jovu::kind_of(descriptor.idProduct), libusb_get_port_number(device)});
    });
    return attached;
}

void JovuUsb::reopen(JovuDeviceAddress address) {
    const auto device = usb_backend().device_at(address);
    if (device == nullptr)
        throw JovuException("Reopen failed - Device no longer connected.", JovuError::disconnected);
    if (!device->order_reopen())
        throw JovuException("Reopen failed - Device is open.", JovuError::rejected);
    request_scan();
}

void JovuUsb::set_device_filter(JovuDeviceFilter filter) {
    UsbBackend& backend = usb_backend();
    auto chosen = filter.matches_all()
                      ? nullptr
                      : std::make_shared<const JovuDeviceFilter>(std::move(filter));
    {
        const MutexLock lock(backend.filter_mutex);
        backend.filter.swap(chosen);
    }
    request_scan();
}

std::vector<JovuDeviceInfo> JovuUsb::list_devices() {
    const auto filter = usb_backend().current_filter();
    std::vector<JovuDeviceInfo> devices;
    for_each_attached([&](libusb_device* device, const libusb_device_descriptor& descriptor) {
        JovuDeviceInfo info = jovu::describe(device, descriptor);
        info.state = state_of(device, descriptor, info, filter.get());
        devices.push_back(std::move(info));
    });
    return devices;
}

bool JovuUsb::is_watching() noexcept {
    return !usb_backend().watcher_failed;
}

bool JovuUsb::in_callback() noexcept {
    return jovu::ClientList::in_callback();
}

void JovuUsb::pause_scans() noexcept {
    if (in_callback()) {
        // This thread may be the one that is opening a device.
        client_list().pauses.begin();
        return;
    }
    const MutexLock opening(usb_backend().opening_mutex);
    client_list().pauses.begin();
}

void JovuUsb::resume_scans() noexcept {
    client_list().pauses.end();
    // A scan that was due meanwhile is made now.
    wake_watcher();
}
