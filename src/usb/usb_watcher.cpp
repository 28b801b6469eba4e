#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "base/log.h"
#include "usb/client_list.h"
#include "usb/usb_backend.h"

namespace jovu {
namespace {

using std::chrono::milliseconds;

/// The scans and the cleanup, as an object that lives on the watcher thread. Nothing in it waits
/// for a write in progress, so that a device that takes no data delays no other one.
class Watcher {
public:
    explicit Watcher(const Context& context) : context_(context) {}

    void run() {
        while (backend_._run_device_hotplug_thread) {
            if (until_scan() == milliseconds(0) && !clients_.pauses.active()) {
                next_scan_ = Clock::now() + UsbBackend::_device_hotplug_refresh_rate;
                scan();
                // Nothing would interrupt the wait for a device that has just been opened.
                if (!backend_._run_device_hotplug_thread) return;
            }
            const bool retry = until_scan() == milliseconds(0) || backend_.cleanup_pending;
            handle_events(context_, retry ? kRetryPeriod : until_scan(), nullptr);
            clients_.rethrow_error();
            if (backend_.cleanup_pending.exchange(false)) clean_up();
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    /// Zero when a scan is due.
    milliseconds until_scan() const {
        return std::max(std::chrono::ceil<milliseconds>(next_scan_ - Clock::now()),
                        milliseconds(0));
    }

    void scan() {
        const DeviceList list(context_);
        if (!list) return;
        std::vector<JovuDeviceAddress> seen;
        for (libusb_device* device : list)
            look_at(device, seen);
        for (const auto& device : backend_.devices()) {
            if (std::find(seen.begin(), seen.end(), device->address()) != seen.end()) continue;
            device->mark_removed();
            // Another device may be waiting for the address.
            if (remove(*device)) next_scan_ = {};
        }
    }

    void look_at(libusb_device* device, std::vector<JovuDeviceAddress>& seen) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) < 0 ||
            descriptor.idVendor != JOVU_USB_VENDOR_ID || descriptor.idProduct != kProductOpened) {
            return;
        }
        const JovuDeviceAddress address{libusb_get_bus_number(device),
                                        libusb_get_device_address(device)};
        if (const auto known = backend_.device_at(address)) {
            if (known->is(device)) {
                seen.push_back(address);
                return;
            }
            known->mark_removed();
            if (!remove(*known)) return;
        }
        const MutexLock opening(backend_.opening_mutex);
        if (clients_.pauses.active()) {
            // The pause began during this scan: another scan is due as soon as it ends.
            next_scan_ = {};
            return;
        }
        if (!probe(device)) return;
        try {
            backend_.add(UsbDevice::open(context_, JOVU_USB_VENDOR_ID, kProductOpened, address,
                                         backend_.cleanup_pending));
        } catch (const DeviceGone&) {
            // Unplugged between the probe and the opening, which is no reason to stop watching.
            return;
        }
        seen.push_back(address);
    }

    /// @return true when the device can be opened and claimed now.
    static bool probe(libusb_device* device) {
        libusb_device_handle* raw = nullptr;
        if (libusb_open(device, &raw) < 0) return false;
        const Handle handle(raw);
        if (libusb_claim_interface(raw, kClaimedInterface) < 0) return false;
        libusb_release_interface(raw, kClaimedInterface);
        return true;
    }

    /// Closes a device and removes it from the table.
    /// @return false when it cannot be closed yet; the cleanup tries again.
    bool remove(UsbDevice& device) {
        if (!device.try_close()) {
            backend_.cleanup_pending = true;
            return false;
        }
        backend_.remove(device);
        return true;
    }

    /// Removes the devices that have gone or no longer receive, and closes those whose close was
    /// ordered in a callback.
    void clean_up() {
        for (const auto& device : backend_.devices()) {
            if (device->to_be_removed()) {
                // Another device may be waiting for the address.
                if (remove(*device)) next_scan_ = {};
            } else if (device->close_ordered() && !device->try_close()) {
                backend_.cleanup_pending = true;
            }
        }
    }

    UsbBackend& backend_ = usb_backend();
    ClientList& clients_ = client_list();
    const Context& context_;
    Clock::time_point next_scan_;  ///< At first in the past.
};

void report_failure(const char* what) noexcept {
    log(JovuLogLevel::fatal, std::nullopt, "Fatal error in hotplug thread - %s.", what);
    usb_backend().watcher_failed = true;
}

}  // namespace

void device_status_thread_entry(const Context& context) noexcept {
    try {
        Watcher(context).run();
    } catch (const std::exception& error) {
        report_failure(error.what());
    } catch (...) {
        // A client may throw anything.
        report_failure("UNKNOWN");
    }
}

}  // namespace jovu
