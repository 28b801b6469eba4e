/// @file
/// Registration of clients, which starts and stops the link.
#include <algorithm>
#include <string>
#include <thread>

#include "jovu/exception.h"
#include "usb/delivery.h"
#include "usb/event_handling.h"
#include "usb/link.h"
#include "usb/usb.h"
#include "usb/usb_watcher.h"

namespace {

using jovu::Link;
using jovu::link;

void start(Link& state) JOVU_REQUIRES(state.lifecycle_mutex) {
    jovu::Context context = jovu::acquire_context();
    if (context == nullptr) throw JovuException("Failed to initialize libusb");
    jovu::forget_client_error();
    state._run_device_hotplug_thread = true;
    state.watcher_failed = false;
    state._device_hotplug_thread =
        std::thread([context] { jovu::device_status_thread_entry(context); });
    state._libusb_ctx = std::move(context);
}

/// Starting and stopping wait for the watcher, and so for every callback.
void refuse_in_callback(const char* what) {
    if (JovuUsb::in_callback()) {
        throw JovuException(std::string(what) +
                            " failed - called from inside a notice or delivery.");
    }
}

/// Removes the entries of clients that were detached. Not on a thread in a callback, which may be
/// walking the list.
void remove_detached(Link::Clients& clients) JOVU_REQUIRES(clients.mutex) {
    clients.list.erase(std::remove_if(clients.list.begin(), clients.list.end(),
                                      [](const auto& entry) { return entry.client == nullptr; }),
                       clients.list.end());
}

void stop(Link& state) JOVU_REQUIRES(state.lifecycle_mutex) {
    state._run_device_hotplug_thread = false;
    jovu::interrupt_event_handling(state._libusb_ctx.get());
    state._device_hotplug_thread.join();
    // First, for a sender in a tight loop must not keep the link from stopping.
    const jovu::FirstGateLock gate(state._connected_devices_mutex);
    state.remove_devices();
    state._libusb_ctx.reset();
}

}  // namespace

bool JovuUsb::in_callback() noexcept {
    return jovu::delivering() || jovu::in_notice();
}

void JovuUsb::client_register(JovuUsbClient& client, jovu_usb_interface_t interface) {
    refuse_in_callback("Register");
    Link& state = link();
    const jovu::MutexLock lifecycle(state.lifecycle_mutex);
    Link::Clients& clients = state._registered_clients[interface];
    {
        const jovu::ScanHolds::State holds = state.scan_holds.now();
        const jovu::ScopedLock<jovu::RecursiveMutex> lock(clients.mutex);
        remove_detached(clients);
        clients.list.push_back({&client, holds.held ? holds.ended + 1 : 0});
    }
    if (state._device_hotplug_thread.joinable()) return;
    // Entered by now, the client is told of what the first scan finds.
    try {
        start(state);
    } catch (...) {
        const jovu::ScopedLock<jovu::RecursiveMutex> lock(clients.mutex);
        clients.list.pop_back();
        throw;
    }
}

void JovuUsb::client_unregister(JovuUsbClient& client, jovu_usb_interface_t interface) {
    refuse_in_callback("Unregister");
    Link& state = link();
    const jovu::MutexLock lifecycle(state.lifecycle_mutex);
    {
        Link::Clients& clients = state._registered_clients[interface];
        const jovu::ScopedLock<jovu::RecursiveMutex> lock(clients.mutex);
        const auto found =
            std::find_if(clients.list.begin(), clients.list.end(),
                         [&client](const auto& entry) { return entry.client == &client; });
        if (found != clients.list.end()) clients.list.erase(found);
        remove_detached(clients);
        if (!clients.list.empty()) return;
    }
    if (state._device_hotplug_thread.joinable()) stop(state);
}

void JovuUsb::client_detach(JovuUsbClient& client, jovu_usb_interface_t interface) {
    // A thread in a callback may hold the other interface's lock as well. The two callbacks cannot
    // run at the same time, so nothing takes the locks in the other order meanwhile.
    Link::Clients& clients = link()._registered_clients[interface];
    const jovu::ScopedLock<jovu::RecursiveMutex> lock(clients.mutex);
    for (Link::Clients::Entry& entry : clients.list) {
        if (entry.client == &client) entry.client = nullptr;
    }
}

void JovuUsb::hold_scans() noexcept {
    Link& state = link();
    if (in_callback()) {
        // This thread may be the one that is opening a device.
        state.scan_holds.take();
        return;
    }
    const jovu::MutexLock opening(state.opening_mutex);
    state.scan_holds.take();
}

void JovuUsb::release_scans() noexcept {
    link().scan_holds.release();
}
