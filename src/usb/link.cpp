#include "usb/link.h"

#include <utility>

#include "base/never_destroyed.h"

namespace jovu {

Link& link() {
    static NeverDestroyed<Link> state;
    return state.get();
}

UsbDevice* Link::device_at(JovuDeviceAddress address) {
    const MutexLock lock(directory_mutex);
    const auto found = _connected_devices.find(address);
    return found == _connected_devices.end() ? nullptr : found->second.get();
}

void Link::add_device(std::unique_ptr<UsbDevice> device) {
    UsbDevice& added = *device;
    const JovuDeviceAddress address = added.address();
    {
        const MutexLock lock(directory_mutex);
        _connected_devices[address] = std::move(device);
    }
    try {
        added.announce();
    } catch (...) {
        remove_device(address);
        throw;
    }
}

void Link::remove_device(JovuDeviceAddress address) noexcept {
    UsbDevice* const device = device_at(address);
    if (device == nullptr) return;
    device->close();
    std::unique_ptr<UsbDevice> removed;
    const MutexLock lock(directory_mutex);
    const auto found = _connected_devices.find(address);
    removed = std::move(found->second);
    _connected_devices.erase(found);
}

void Link::remove_devices() noexcept {
    for (;;) {
        JovuDeviceAddress address{};
        {
            const MutexLock lock(directory_mutex);
            if (_connected_devices.empty()) return;
            address = _connected_devices.begin()->first;
        }
        remove_device(address);
    }
}

std::vector<JovuDeviceAddress> Link::addresses() {
    const MutexLock lock(directory_mutex);
    std::vector<JovuDeviceAddress> result;
    result.reserve(_connected_devices.size());
    for (const auto& entry : _connected_devices)
        result.push_back(entry.first);
    return result;
}

}  // namespace jovu
