// SPDX-License-Identifier: Apache-2.0
#include "usbip/usbip_bus.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

namespace jovusim::usbip {

short events_of(const std::vector<pollfd>& waits, int fd) {
    for (const pollfd& wait : waits) {
        if (wait.fd == fd) return wait.revents;
    }
    return 0;
}

std::string UsbipBus::name_of(Port port) const {
    return std::to_string(bus_number()) + "-" + std::to_string(port);
}

std::string UsbipBus::plug(const std::optional<std::string>& name, const PlugRequest& request) {
    const Port port = name ? parse_port(*name) : free_port();
    if (find(port) || returning_.count(port) != 0) {
        throw std::runtime_error("a device is plugged in at " + name_of(port));
    }
    const std::string serial = free_serial(
        bus_number(), port, [this](const std::string& candidate) { return is_taken(candidate); });
    attach(port, make_function(request, serial, settings_.time_scale));
    return name_of(port);
}

UsbipBus::Port UsbipBus::parse_port(const std::string& name) const {
    for (Port port = 1; port <= last_port(); ++port) {
        if (name == name_of(port)) return port;
    }
    throw std::runtime_error("\"" + name + "\" is not a port of this bus: use " + name_of(1) +
                             " to " + name_of(last_port()));
}

UsbipBus::Port UsbipBus::free_port() const {
    for (Port port = 1; port <= last_port(); ++port) {
        if (!find(port) && returning_.count(port) == 0 && usable(port)) return port;
    }
    throw std::runtime_error("no port is free: all " + std::to_string(last_port()) + " of bus " +
                             std::to_string(bus_number()) + " are in use");
}

bool UsbipBus::is_taken(const std::string& serial) const {
    return std::any_of(devices_.begin(), devices_.end(),
                       [&](const auto& d) { return d.second->identity().serial == serial; }) ||
           std::any_of(returning_.begin(), returning_.end(), [&](const auto& r) {
               return r.second.function->identity().serial == serial;
           });
}

void UsbipBus::attach(Port port, std::unique_ptr<UsbFunction> function) {
    // The address under which the device is exported and captured: 1 is that of the hub.
    const BusAddress address{static_cast<std::uint8_t>(bus_number()),
                             static_cast<std::uint8_t>(port + 1)};
    UrbListener listener;
    if (settings_.capture != nullptr) {
        listener = [capture = settings_.capture, address](UrbEvent event, const Urb& urb) {
            capture->record(address, event, urb);
        };
    }
    const auto device = std::make_shared<UsbipDevice>(
        name_of(port), address, settings_.speed, std::move(function),
        [this, port] { return find_address(port); }, std::move(listener));
    plugged_in(port, *device);
    devices_[port] = device;
}

void UsbipBus::unplug(const std::string& name) {
    const auto device = find(name);
    device->disconnect();
    for (auto it = devices_.begin(); it != devices_.end(); ++it) {
        if (it->second != device) continue;
        devices_.erase(it);
        return;
    }
}

std::shared_ptr<UsbipDevice> UsbipBus::find(Port port) const {
    const auto found = devices_.find(port);
    return found == devices_.end() ? nullptr : found->second;
}

std::shared_ptr<UsbipDevice> UsbipBus::find(const std::string& name) const {
    const auto address = parse_address(name);
    for (const auto& [port, device] : devices_) {
        if (device->name() == name) return device;
        if (!address) continue;
        const auto given = device->host_address();
        if (given && !(*given < *address) && !(*address < *given)) return device;
    }
    throw std::runtime_error("no device at " + name);
}

std::shared_ptr<BusDevice> UsbipBus::at(const std::string& name) {
    return find(name);
}

std::vector<std::shared_ptr<BusDevice>> UsbipBus::devices() const {
    std::vector<std::shared_ptr<BusDevice>> all;
    for (const auto& [port, device] : devices_)
        all.push_back(device);
    return all;
}

bool UsbipBus::all_configured() const {
    return std::all_of(devices_.begin(), devices_.end(),
                       [](const auto& d) { return d.second->configured(); });
}

bool UsbipBus::can_inject(BusFault fault) const {
    return fault != BusFault::claim && fault != BusFault::submit;
}

void UsbipBus::block_open(const std::string& /*name*/, bool blocked) {
    if (blocked) throw std::runtime_error("not on this bus: its kernel opens the device node");
}

void UsbipBus::service() {
    const Millis now = now_ms();
    const auto plugged = devices_;
    for (const auto& [port, device] : plugged) {
        device->tick();
        if (device->unplugged()) {
            device->disconnect();
            if (auto successor = device->take_successor()) {
                returning_[port] = {now + kRestartTime, std::move(successor)};
            }
            devices_.erase(port);
        } else if (device->host_gone()) {
            device->disconnect();
            if (!host_left(*device)) devices_.erase(port);
        }
    }
    attach_returned(now);
}

void UsbipBus::attach_returned(Millis now) {
    for (auto it = returning_.begin(); it != returning_.end();) {
        if (it->second.due > now) {
            ++it;
            continue;
        }
        const Port port = it->first;
        auto function = std::move(it->second.function);
        it = returning_.erase(it);
        try {
            attach(port, std::move(function));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "jovu-sim: %s cannot return: %s\n", name_of(port).c_str(),
                         error.what());
        }
    }
}

std::optional<Millis> UsbipBus::next_due() const {
    std::optional<Millis> first;
    for (const auto& [port, device] : devices_) {
        const auto due = device->next_due();
        if (due && (!first || *due < *first)) first = due;
    }
    for (const auto& [port, returning] : returning_) {
        if (!first || returning.due < *first) first = returning.due;
    }
    return first;
}

void UsbipBus::add_to(std::vector<pollfd>& waits) const {
    for (const auto& [port, device] : devices_) {
        if (device->connected()) waits.push_back({device->fd(), device->events(), 0});
    }
}

void UsbipBus::serve(const std::vector<pollfd>& waits) {
    const auto plugged = devices_;
    for (const auto& [port, device] : plugged) {
        if (!device->connected()) continue;
        if (const short events = events_of(waits, device->fd())) device->serve(events);
    }
}

}  // namespace jovusim::usbip
