#include "usb/usb_watcher.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "usb/delivery.h"
#include "usb/event_handling.h"
#include "usb/link.h"

namespace jovu {
namespace {

using std::chrono::milliseconds;

/// How long the watcher waits for the device gate before it looks at the events and at its run flag
/// again. Whoever holds the gate handles events itself meanwhile.
constexpr milliseconds kGateSlice{20};

/// Event wait while a scan is due but held back.
constexpr milliseconds kHeldSlice{10};

/// The watcher's pass over the bus, as an object that lives on its thread.
class Watcher {
public:
    explicit Watcher(const Context& context) : context_(context) {}

    void run() {
        while (link_._run_device_hotplug_thread) {
            if (scan_is_due() && !link_.scan_holds.now().held) {
                last_scan_ = std::chrono::steady_clock::now();
                scan();
                // Nothing would interrupt the wait for a device that has just been opened.
                if (!link_._run_device_hotplug_thread) return;
            }
            handle_events(scan_is_due() ? kHeldSlice : Link::_device_hotplug_refresh_rate);
            sweep();
        }
    }

private:
    bool scan_is_due() const {
        return !last_scan_ ||
               std::chrono::steady_clock::now() - *last_scan_ >= Link::_device_hotplug_refresh_rate;
    }

    void handle_events(milliseconds limit) {
        jovu::handle_events(context_, limit, nullptr);
        rethrow_client_error();
    }

    /// Runs @p work with the device gate held, ahead of any other thread that wants the gate.
    /// Gives up when the link is stopping.
    template <class Work>
    void with_gate(Work work) JOVU_NO_THREAD_SAFETY_ANALYSIS {
        DeviceGate::Place place(link_._connected_devices_mutex);
        while (!place.try_lock_for(kGateSlice)) {
            if (!link_._run_device_hotplug_thread) return;
            handle_events(milliseconds(0));
        }
        const GateHolder holder(link_._connected_devices_mutex);
        work();
    }

    void scan() {
        with_gate([this]() JOVU_REQUIRES(link_._connected_devices_mutex) {
            const DeviceList list(context_);
            if (!list) return;
            std::vector<JovuDeviceAddress> seen;
            for (libusb_device* device : list)
                look_at(device, seen);
            for (const JovuDeviceAddress address : link_.addresses()) {
                if (std::find(seen.begin(), seen.end(), address) == seen.end()) {
                    link_.remove_device(address);
                }
            }
        });
    }

    void look_at(libusb_device* device, std::vector<JovuDeviceAddress>& seen)
        JOVU_REQUIRES(link_._connected_devices_mutex) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) < 0 ||
            descriptor.idVendor != JOVU_USB_VENDOR_ID || descriptor.idProduct != kProductOpened) {
            return;
        }
        const JovuDeviceAddress address{libusb_get_bus_number(device),
                                        libusb_get_device_address(device)};
        UsbDevice* const known = link_.device_at(address);
        if (known != nullptr && known->is(device)) {
            seen.push_back(address);
            return;
        }
        link_.remove_device(address);
        const MutexLock opening(link_.opening_mutex);
        if (link_.scan_holds.now().held) {
            // Held back in the middle of the scan: another one is due as soon as that is over.
            last_scan_.reset();
            return;
        }
        if (!probe(device)) return;
        try {
            link_.add_device(
                std::make_unique<UsbDevice>(context_, JOVU_USB_VENDOR_ID, kProductOpened, address));
        } catch (const DeviceGone&) {
            // Unplugged between the probe and the opening, which is no reason to stop watching.
            return;
        }
        seen.push_back(address);
    }

    /// @return whether the device can be opened and claimed just now.
    static bool probe(libusb_device* device) {
        libusb_device_handle* raw = nullptr;
        if (libusb_open(device, &raw) < 0) return false;
        const Handle handle(raw);
        if (libusb_claim_interface(raw, kClaimedInterface) < 0) return false;
        libusb_release_interface(raw, kClaimedInterface);
        return true;
    }

    /// Removes devices whose reception has failed on both channels, and closes those whose close
    /// was ordered from inside a delivery.
    void sweep() {
        if (!link_.sweep_wanted.exchange(false)) return;
        bool done = false;
        with_gate([this, &done]() JOVU_REQUIRES(link_._connected_devices_mutex) {
            for (const JovuDeviceAddress address : link_.addresses()) {
                UsbDevice* const device = link_.device_at(address);
                if (device->reception_failed()) {
                    link_.remove_device(address);
                } else if (device->close_ordered()) {
                    device->close();
                }
            }
            done = true;
        });
        if (!done) link_.sweep_wanted = true;
    }

    Link& link_ = link();
    const Context& context_;
    std::optional<std::chrono::steady_clock::time_point> last_scan_;
};

void tell_of_end(const char* what) noexcept {
    std::fprintf(stdout, "Fatal error in hotplug thread - %s.\n", what);
    std::fflush(stdout);
    link().watcher_failed = true;
}

}  // namespace

void device_status_thread_entry(const Context& context) noexcept {
    try {
        Watcher(context).run();
    } catch (const std::exception& error) {
        tell_of_end(error.what());
    } catch (...) {
        // A client may throw anything; the line is all that is told of it.
        tell_of_end("UNKNOWN");
    }
}

}  // namespace jovu
