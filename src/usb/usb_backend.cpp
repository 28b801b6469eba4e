// SPDX-License-Identifier: Apache-2.0
#include "usb/usb_backend.h"

#include <algorithm>
#include <utility>

#include "base/never_destroyed.h"

namespace jovu {

UsbBackend& usb_backend() {
    static NeverDestroyed<UsbBackend> backend;
    return backend.get();
}

std::optional<JovuDeviceState> UnopenedDevices::reason(libusb_device* device) const {
    const MutexLock lock(mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(), [device](const Entry& entry) {
        return entry.device.get() == device;
    });
    if (found == entries_.end()) return std::nullopt;
    return found->reason;
}

void UnopenedDevices::replace(std::vector<Entry> entries) noexcept {
    const MutexLock lock(mutex_);
    entries_.swap(entries);
}

std::shared_ptr<UsbDevice> UsbBackend::device_at(JovuDeviceAddress address) {
    const MutexLock lock(_connected_devices_mutex);
    const auto found = _connected_devices.find(address);
    return found == _connected_devices.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<UsbDevice>> UsbBackend::devices() {
    const MutexLock lock(_connected_devices_mutex);
    std::vector<std::shared_ptr<UsbDevice>> result;
    result.reserve(_connected_devices.size());
    for (const auto& entry : _connected_devices)
        result.push_back(entry.second);
    return result;
}

std::shared_ptr<const JovuDeviceFilter> UsbBackend::current_filter() {
    const MutexLock lock(filter_mutex);
    return filter;
}

void UsbBackend::add(const std::shared_ptr<UsbDevice>& device) {
    try {
        device->connect([&] {
            const MutexLock lock(_connected_devices_mutex);
            _connected_devices[device->address()] = device;
        });
    } catch (...) {
        device->finish_close();
        remove(*device);
        throw;
    }
}

void UsbBackend::remove(UsbDevice& device) noexcept {
    device.release_device();
    std::shared_ptr<UsbDevice> removed;
    const MutexLock lock(_connected_devices_mutex);
    const auto found = _connected_devices.find(device.address());
    if (found == _connected_devices.end()) return;
    removed = std::move(found->second);
    _connected_devices.erase(found);
}

void UsbBackend::remove_all() noexcept {
    {
        // All of them first: what is written to one would be waited for after another one's write.
        const MutexLock lock(_connected_devices_mutex);
        for (const auto& entry : _connected_devices)
            entry.second->reject_writes();
    }
    for (;;) {
        std::shared_ptr<UsbDevice> device;
        {
            const MutexLock lock(_connected_devices_mutex);
            if (_connected_devices.empty()) return;
            device = _connected_devices.begin()->second;
        }
        device->finish_close();
        remove(*device);
    }
}

}  // namespace jovu
