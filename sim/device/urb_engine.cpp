// SPDX-License-Identifier: Apache-2.0
#include "device/urb_engine.h"

#include <linux/usb/ch9.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace jovusim {

namespace {

bool is_in(std::uint8_t endpoint) {
    return (endpoint & USB_ENDPOINT_DIR_MASK) != 0;
}

}  // namespace

UrbEngine::UrbEngine(UsbFunction& function, FaultTable& faults, UsbSpeed speed,
                     UrbListener listener)
    : function_(function),
      faults_(faults),
      standard_(function, speed),
      listener_(std::move(listener)) {
    std::size_t number = 0;
    for (const InterfaceInfo& interface : function.identity().interfaces) {
        for (const EndpointInfo& endpoint : interface.endpoints) {
            Endpoint& entry = endpoints_[endpoint.address];
            entry.interface = number;
            entry.max_packet = max_packet(endpoint, speed);
        }
        ++number;
    }
}

std::optional<std::size_t> UrbEngine::interface_of(std::uint8_t endpoint) const {
    const auto found = endpoints_.find(endpoint);
    if (found == endpoints_.end()) return std::nullopt;
    return found->second.interface;
}

int UrbEngine::submit(Urb urb, Millis now) {
    urb.id = ++last_id_;
    if (urb.control) {
        report(UrbEvent::submitted, urb);
        run_control(std::move(urb), now);
        return 0;
    }
    const auto found = endpoints_.find(urb.endpoint);
    if (found == endpoints_.end()) return ENOENT;
    Endpoint& endpoint = found->second;
    report(UrbEvent::submitted, urb);
    if (const int error = faults_.take(BusFault::submit, urb.endpoint)) {
        urb.status = -error;
        report(UrbEvent::refused, urb);
        return error;
    }
    if (!standard_.configured() || standard_.halted(urb.endpoint)) {
        finish(std::move(urb), standard_.configured() ? -EPIPE : -EPROTO);
    } else if (const int error = faults_.take(BusFault::status, urb.endpoint)) {
        finish(std::move(urb), -error);
    } else if (faults_.take(BusFault::never, urb.endpoint) != 0) {
        endpoint.stuck.push_back(std::move(urb));
    } else if (is_in(urb.endpoint)) {
        endpoint.waiting.push_back(std::move(urb));
        pump(found->first, endpoint, now);
    } else {
        send_out(std::move(urb), endpoint, now);
        pump(now);
    }
    return 0;
}

void UrbEngine::send_out(Urb urb, Endpoint& endpoint, Millis now) {
    const auto cut = faults_.count_out(urb.endpoint, urb.length);
    urb.actual = cut.value_or(urb.length);
    endpoint.bytes += urb.actual;
    function_.receive(urb.endpoint, urb.buffer, urb.actual, now);
    if (cut) {
        // Stays in flight and ends with all others at the unplug.
        unplug_requested_ = true;
        endpoint.waiting.push_back(std::move(urb));
    } else {
        ++endpoint.transfers;
        finish(std::move(urb), 0);
    }
}

void UrbEngine::pump(Millis now) {
    for (auto& [address, endpoint] : endpoints_) {
        if (is_in(address)) pump(address, endpoint, now);
    }
}

void UrbEngine::pump(std::uint8_t address, Endpoint& endpoint, Millis now) {
    while (!endpoint.waiting.empty()) {
        const auto packet = function_.next_packet(address, now);
        if (!packet) return;
        Urb& urb = endpoint.waiting.front();
        const std::size_t room = urb.length - urb.actual;
        const std::size_t taken = std::min(room, packet->size());
        std::copy_n(packet->data(), taken, urb.buffer + urb.actual);
        urb.actual += taken;
        endpoint.bytes += taken;
        const bool overflow = packet->size() > room;
        if (packet->size() < endpoint.max_packet || urb.actual == urb.length) {
            ++endpoint.transfers;
            Urb done = std::move(urb);
            endpoint.waiting.pop_front();
            finish(std::move(done), overflow ? -EOVERFLOW : 0);
        }
    }
}

void UrbEngine::run_control(Urb urb, Millis now) {
    usb_ctrlrequest setup{};
    if (urb.length < sizeof setup) {
        finish(std::move(urb), -EPIPE);
        return;
    }
    std::memcpy(&setup, urb.buffer, sizeof setup);
    const bool to_host = (setup.bRequestType & USB_DIR_IN) != 0;
    const std::size_t room = std::min<std::size_t>(setup.wLength, urb.length - sizeof setup);
    std::uint8_t* const stage = urb.buffer + sizeof setup;
    std::optional<std::string> response;
    if ((setup.bRequestType & USB_TYPE_MASK) == USB_TYPE_STANDARD) {
        response = standard_.respond(setup);
        end_unusable();
    } else {
        const std::string data(reinterpret_cast<const char*>(stage), to_host ? 0 : room);
        response = function_.control(
            {setup.bRequestType, setup.bRequest, setup.wValue, setup.wIndex, setup.wLength}, data,
            now);
    }
    if (function_.disconnect_due(now)) {
        cut_short_.push_back(std::move(urb));
        return;
    }
    if (!response) {
        finish(std::move(urb), -EPIPE);
        return;
    }
    urb.actual = to_host ? std::min(room, response->size()) : room;
    if (to_host) std::memcpy(stage, response->data(), urb.actual);
    finish(std::move(urb), 0);
}

/// Ends the transfers in flight that a standard request has made impossible.
void UrbEngine::end_unusable() {
    for (auto& [address, endpoint] : endpoints_) {
        if (standard_.configured() && !standard_.halted(address)) continue;
        const int status = standard_.configured() ? -EPIPE : -EPROTO;
        finish_all(endpoint.waiting, status);
        finish_all(endpoint.stuck, status);
    }
}

int UrbEngine::discard(ClientId client, std::uint64_t handle) {
    for (auto& [address, endpoint] : endpoints_) {
        if (cancel(endpoint.waiting, client, handle)) return 0;
        if (cancel(endpoint.stuck, client, handle)) return 0;
    }
    return cancel(cut_short_, client, handle) ? 0 : EINVAL;
}

/// Returns false when the transfer is not there.
bool UrbEngine::cancel(std::deque<Urb>& urbs, ClientId client, std::uint64_t handle) {
    const auto found = std::find_if(urbs.begin(), urbs.end(), [client, handle](const Urb& urb) {
        return urb.client == client && urb.handle == handle;
    });
    if (found == urbs.end()) return false;
    Urb urb = std::move(*found);
    urbs.erase(found);
    finish(std::move(urb), -ENOENT);
    return true;
}

std::optional<Urb> UrbEngine::reap(ClientId client) {
    const auto found = std::find_if(finished_.begin(), finished_.end(),
                                    [client](const Urb& urb) { return urb.client == client; });
    if (found == finished_.end()) return std::nullopt;
    Urb urb = std::move(*found);
    finished_.erase(found);
    return urb;
}

void UrbEngine::discard_interface(std::size_t interface) {
    for (auto& [address, endpoint] : endpoints_) {
        if (endpoint.interface != interface) continue;
        finish_all(endpoint.waiting, -ENOENT);
        finish_all(endpoint.stuck, -ENOENT);
    }
}

void UrbEngine::forget(ClientId client) {
    for (auto& [address, endpoint] : endpoints_) {
        drop(endpoint.waiting, client);
        drop(endpoint.stuck, client);
    }
    drop(cut_short_, client);
    finished_.erase(std::remove_if(finished_.begin(), finished_.end(),
                                   [client](const Urb& urb) { return urb.client == client; }),
                    finished_.end());
}

/// Ends the transfers in flight of a client that nobody will reap.
void UrbEngine::drop(std::deque<Urb>& urbs, ClientId client) {
    for (auto it = urbs.begin(); it != urbs.end();) {
        if (it->client != client) {
            ++it;
            continue;
        }
        it->status = -ENOENT;
        report(UrbEvent::completed, *it);
        it = urbs.erase(it);
    }
}

bool UrbEngine::select_configuration(unsigned value) {
    if (!standard_.select_configuration(value)) return false;
    end_unusable();
    return true;
}

void UrbEngine::power_on() {
    end_all(-ESHUTDOWN);
    finished_.clear();
    standard_.power_on();
}

void UrbEngine::end_all(int status) {
    for (auto& [address, endpoint] : endpoints_) {
        finish_all(endpoint.waiting, status);
        finish_all(endpoint.stuck, status);
    }
    finish_all(cut_short_, status);
}

void UrbEngine::finish_all(std::deque<Urb>& urbs, int status) {
    for (Urb& urb : urbs)
        finish(std::move(urb), status);
    urbs.clear();
}

void UrbEngine::report(UrbEvent event, const Urb& urb) const {
    if (listener_) listener_(event, urb);
}

void UrbEngine::finish(Urb urb, int status) {
    urb.status = status;
    report(UrbEvent::completed, urb);
    finished_.push_back(std::move(urb));
}

Json UrbEngine::stats() const {
    Json out = Json::object();
    for (const auto& [address, endpoint] : endpoints_) {
        char name[3];
        std::snprintf(name, sizeof name, "%02x", unsigned{address});
        out[name] = {{"bytes", endpoint.bytes},
                     {"transfers", endpoint.transfers},
                     {"in_flight", endpoint.waiting.size() + endpoint.stuck.size()}};
    }
    return out;
}

}  // namespace jovusim
