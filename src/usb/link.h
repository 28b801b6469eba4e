/// @file
/// The state of the link, one per process. Lock order: docs/architecture.md.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "jovu/device_address.h"
#include "jovu/usb_client.h"
#include "usb/device_gate.h"
#include "usb/libusb_owners.h"
#include "usb/scan_holds.h"
#include "usb/usb_constants.h"
#include "usb/usb_device.h"

namespace jovu {

/// Never destroyed: the watcher may still run when the process leaves.
struct Link {
    /// Both the scan period and the longest event wait.
    static constexpr std::chrono::milliseconds _device_hotplug_refresh_rate{500};

    /// Serialises starting and stopping. Taken before every other lock; no client is called and no
    /// device lock is wanted by the watcher for it, so the watcher can be joined with it held.
    Mutex lifecycle_mutex;
    std::thread _device_hotplug_thread JOVU_GUARDED_BY(lifecycle_mutex);
    Context _libusb_ctx JOVU_GUARDED_BY(lifecycle_mutex);

    std::atomic<bool> _run_device_hotplug_thread{true};
    /// Held while one device is opened and announced, so that a hold begins before or after that
    /// and never in the middle. Taken inside the gate.
    Mutex opening_mutex;
    ScanHolds scan_holds;

    /// The clients of one interface number. The lock is held while they are called.
    struct Clients {
        struct Entry {
            JovuUsbClient* client;  ///< Null once the client is detached.
            /// Not called before so many times of holds have ended: whoever registers under a hold
            /// is still being built.
            std::uint64_t live_after;
        };
        RecursiveMutex mutex;
        std::vector<Entry> list JOVU_GUARDED_BY(mutex);
    };
    std::array<Clients, kInterfaceCount> _registered_clients;

    /// Held by whoever opens, closes or writes to a device. A device found in the directory stays
    /// valid while this is held.
    DeviceGate _connected_devices_mutex;

    /// Guards the directory itself, for moments, so that listing never waits for a send. The map
    /// is changed only with the gate held as well.
    Mutex directory_mutex;
    std::unordered_map<JovuDeviceAddress, std::unique_ptr<UsbDevice>> _connected_devices
        JOVU_GUARDED_BY(directory_mutex);

    /// Set when a device may have to be removed before the next scan finds out. An
    /// ordered close interrupts the watcher's event wait as well (interrupt_event_handling()).
    std::atomic<bool> sweep_wanted{false};

    /// Set by a watcher that an error has ended.
    std::atomic<bool> watcher_failed{false};

    Mutex client_error_mutex;
    std::exception_ptr client_error JOVU_GUARDED_BY(client_error_mutex);

    /// The device at an address, or null. Caller holds the gate for as long as it uses the device.
    UsbDevice* device_at(JovuDeviceAddress address) JOVU_REQUIRES(_connected_devices_mutex);

    /// Enters a device into the directory and announces it. If a client throws, the device is
    /// removed again and the exception passes on.
    void add_device(std::unique_ptr<UsbDevice> device) JOVU_REQUIRES(_connected_devices_mutex);

    /// Closes a device (which announces its leaving) and removes it from the directory.
    void remove_device(JovuDeviceAddress address) noexcept JOVU_REQUIRES(_connected_devices_mutex);

    /// Removes every device.
    void remove_devices() noexcept JOVU_REQUIRES(_connected_devices_mutex);

    std::vector<JovuDeviceAddress> addresses() JOVU_EXCLUDES(directory_mutex);
};

Link& link();

}  // namespace jovu
