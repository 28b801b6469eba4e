// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/log.h"
#include "usb/attached_device.h"
#include "usb/client_list.h"
#include "usb/event_turn.h"
#include "usb/usb_backend.h"

namespace jovu {
namespace {

using std::chrono::milliseconds;

/// The scans and the cleanup, as an object that lives on the watcher thread. Nothing in it waits
/// for a write in progress, so that a device that takes no data delays no other one.
class Watcher {
public:
    explicit Watcher(const Context& context)
        : context_(context), notice_(context, backend_.scan_requested) {}

    void run() {
        while (backend_._run_device_hotplug_thread) {
            if (backend_.scan_requested.exchange(false)) next_scan_ = {};
            if (until_scan() == milliseconds(0) && !clients_.pauses.active()) {
                next_scan_ = Clock::now() + UsbBackend::_device_hotplug_refresh_rate;
                scan();
                // Nothing would interrupt the wait for a device that has just been opened.
                if (!backend_._run_device_hotplug_thread) return;
            }
            if (!event_turn().stand_aside()) handle_events(context_, event_wait(), nullptr);
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

    milliseconds event_wait() const {
        // A sender that handled events during the scan may have consumed the interrupt.
        if (backend_.scan_requested) return milliseconds(0);
        const bool retry = until_scan() == milliseconds(0) || backend_.cleanup_pending;
        return retry ? kRetryPeriod : until_scan();
    }

    void scan() {
        const DeviceList list(context_);
        if (!list) return;
        filter_ = backend_.current_filter();
        std::vector<JovuDeviceAddress> seen;
        unopened_.clear();
        for (libusb_device* device : list)
            look_at(device, seen);
        backend_.unopened.replace(std::move(unopened_));
        for (const auto& device : backend_.devices()) {
            if (std::find(seen.begin(), seen.end(), device->address()) != seen.end()) continue;
            device->mark_removed();
            // Another device may be waiting for the address.
            if (remove(*device)) next_scan_ = {};
        }
    }

    bool is_wanted(libusb_device* device, const libusb_device_descriptor& descriptor) const {
        if (filter_ == nullptr) return true;
        const Serial serial = filter_->has_serials() ? Serial::read : Serial::leave_out;
        return filter_->matches(describe(device, descriptor, serial));
    }

    void look_at(libusb_device* device, std::vector<JovuDeviceAddress>& seen) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) < 0 ||
            descriptor.idVendor != JOVU_USB_VENDOR_ID || descriptor.idProduct != kProductOpened) {
            return;
        }
        const JovuDeviceAddress address{libusb_get_bus_number(device),
                                        libusb_get_device_address(device)};
        const bool wanted = is_wanted(device, descriptor);
        if (const auto known = backend_.device_at(address)) {
            if (wanted && known->is(device) && !known->reopen_ordered()) {
                seen.push_back(address);
                return;
            }
            known->mark_removed();
            if (!remove(*known)) return;
        }
        if (!wanted) return;
        const MutexLock opening(backend_.opening_mutex);
        if (clients_.pauses.active()) {
            // The pause began during this scan: another scan is due as soon as it ends.
            next_scan_ = {};
            if (const auto before = backend_.unopened.reason(device))
                keep_unopened(device, *before);
            return;
        }
        ClaimedHandle handle;
        if (const int error = open_and_claim(device, handle); error < 0) {
            found_unopened(device, descriptor, state_after(error));
            return;
        }
        backend_.add(std::make_shared<UsbDevice>(context_, device, address, std::move(handle),
                                                 backend_.cleanup_pending));
        seen.push_back(address);
    }

    void keep_unopened(libusb_device* device, JovuDeviceState reason) {
        unopened_.push_back({DeviceRef(libusb_ref_device(device)), reason});
    }

    /// Notifies the clients unless the last scan has found the same reason. A device that has gone
    /// is not attached any more.
    void found_unopened(libusb_device* device, const libusb_device_descriptor& descriptor,
                        JovuDeviceState reason) {
        keep_unopened(device, reason);
        if (reason == JovuDeviceState::vanished || backend_.unopened.reason(device) == reason) {
            return;
        }
        JovuDeviceInfo info = describe(device, descriptor);
        info.state = reason;
        clients_.notify_unavailable(info);
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
    const HotplugNotice notice_;
    Clock::time_point next_scan_;                     ///< At first in the past.
    std::shared_ptr<const JovuDeviceFilter> filter_;  ///< Of the scan in progress.
    std::vector<UnopenedDevices::Entry> unopened_;    ///< By the scan in progress.
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
