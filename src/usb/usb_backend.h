// SPDX-License-Identifier: Apache-2.0

/// @file
/// The state of the USB backend, one per process. Lock order: docs/architecture.md.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "usb/libusb_owners.h"
#include "usb/usb_device.h"

namespace jovu {

/// The devices that the last scan could not open, each with its reason.
class UnopenedDevices {
public:
    struct Entry {
        DeviceRef device;  ///< A reference, so that no other device gets the same pointer.
        JovuDeviceState reason;
    };

    /// @return why a device could not be opened; nothing for any other device.
    std::optional<JovuDeviceState> reason(libusb_device* device) const;

    /// Takes the place of what was found before.
    void replace(std::vector<Entry> entries) noexcept;

private:
    mutable Mutex mutex_;  ///< A leaf.
    std::vector<Entry> entries_ JOVU_GUARDED_BY(mutex_);
};

/// Never destroyed: the watcher may still run when the process exits.
struct UsbBackend {
    /// Both the scan period and the longest event wait.
    static constexpr std::chrono::milliseconds _device_hotplug_refresh_rate{500};

    /// Serialises starting and stopping. Acquired before every other lock of the backend; the
    /// watcher does not acquire it, so the watcher can be joined with it held.
    Mutex lifecycle_mutex;
    std::thread _device_hotplug_thread JOVU_GUARDED_BY(lifecycle_mutex);
    Context _libusb_ctx JOVU_GUARDED_BY(lifecycle_mutex);

    std::atomic<bool> _run_device_hotplug_thread{true};

    /// Held while one device is opened and its clients are notified, so that a scan pause begins
    /// before or after that and never in between.
    Mutex opening_mutex;

    /// The device table. Devices are added by the watcher, and removed by it or after its end.
    Mutex _connected_devices_mutex;
    std::unordered_map<JovuDeviceAddress, std::shared_ptr<UsbDevice>> _connected_devices
        JOVU_GUARDED_BY(_connected_devices_mutex);

    /// The devices that are opened; null for every controller.
    Mutex filter_mutex;  ///< A leaf.
    std::shared_ptr<const JovuDeviceFilter> filter JOVU_GUARDED_BY(filter_mutex);

    UnopenedDevices unopened;

    /// Set when the watcher is to scan before its period has passed, by hot-plug or by a request;
    /// goes with an interrupt of its event wait.
    std::atomic<bool> scan_requested{false};

    /// Set when the watcher has devices to close or to remove before the next scan. An ordered
    /// close interrupts its event wait as well.
    std::atomic<bool> cleanup_pending{false};

    /// Set by a watcher that an error has ended.
    std::atomic<bool> watcher_failed{false};

    /// @return the device at an address, or null.
    std::shared_ptr<UsbDevice> device_at(JovuDeviceAddress address);

    std::vector<std::shared_ptr<UsbDevice>> devices();

    /// @return the filter; null for every controller.
    std::shared_ptr<const JovuDeviceFilter> current_filter();

    /// Adds a device to the table, notifies the clients and starts receiving. If that fails,
    /// because a client throws or memory is exhausted, the device is closed and removed again, and
    /// the exception passes on.
    void add(const std::shared_ptr<UsbDevice>& device);

    /// Removes a closed device from the table.
    void remove(UsbDevice& device) noexcept;

    /// Closes and removes every device. The watcher has ended.
    void remove_all() noexcept;
};

UsbBackend& usb_backend();

/// Body of the watcher thread: scans the bus, and runs libusb's event handling between scans, until
/// the backend's run flag is cleared. An error that is not a device's own ends it with one line on
/// standard output; it never throws.
/// @param context kept alive by the watcher while it runs.
void device_status_thread_entry(const Context& context) noexcept;

}  // namespace jovu
