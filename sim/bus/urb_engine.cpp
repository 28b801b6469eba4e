// SPDX-License-Identifier: Apache-2.0
#include "bus/urb_engine.h"

#include <linux/usb/ch9.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "bus/enumeration.h"
#include "firmware/usb/transmit_queue.h"

namespace jovusim {

void FaultTable::add(BusFault fault, std::uint8_t endpoint, int error, std::uint32_t count,
                     std::uint32_t skip) {
    if (count == 0) return;
    const int value = fault == BusFault::never ? 1 : error;
    settings_[{fault, endpoint}].push_back({value, count, skip});
}

int FaultTable::take(BusFault fault, std::uint8_t endpoint) {
    const auto found = settings_.find({fault, endpoint});
    if (found == settings_.end() || found->second.empty()) return 0;
    Setting& setting = found->second.front();
    if (setting.skip > 0) {
        --setting.skip;
        return 0;
    }
    const int error = setting.error;
    if (setting.count != kAlways && --setting.count == 0) found->second.pop_front();
    return error;
}

void FaultTable::unplug_after(std::uint8_t endpoint, std::uint64_t bytes) {
    unplug_after_[endpoint] = bytes;
}

std::optional<std::size_t> FaultTable::count_out(std::uint8_t endpoint, std::size_t size) {
    const auto found = unplug_after_.find(endpoint);
    if (found == unplug_after_.end()) return std::nullopt;
    if (size < found->second) {
        found->second -= size;
        return std::nullopt;
    }
    const auto left = static_cast<std::size_t>(found->second);
    unplug_after_.erase(found);
    return left;
}

void FaultTable::clear() {
    settings_.clear();
    unplug_after_.clear();
}

namespace {

bool is_in(std::uint8_t endpoint) {
    return (endpoint & USB_ENDPOINT_DIR_MASK) != 0;
}

/// The data stage of a standard request, or nothing for a stall.
std::optional<std::string> standard_request(UsbFunction& function, const usb_ctrlrequest& setup) {
    const bool to_host = (setup.bRequestType & USB_DIR_IN) != 0;
    switch (setup.bRequest) {
        case USB_REQ_GET_DESCRIPTOR:
            if (!to_host) return std::nullopt;
            return find_descriptor(function.identity(),
                                   static_cast<std::uint8_t>(setup.wValue >> 8U),
                                   static_cast<std::uint8_t>(setup.wValue & 0xFFU));
        case USB_REQ_GET_STATUS:
            return std::string(2, '\0');
        case USB_REQ_GET_CONFIGURATION:
            return std::string(1, '\1');
        case USB_REQ_SET_CONFIGURATION:
            if (to_host || setup.wValue != kConfigurationValue) return std::nullopt;
            function.configure();
            return std::string();
        default:
            return std::nullopt;
    }
}

}  // namespace

UrbEngine::UrbEngine(UsbFunction& function, FaultTable& faults, UrbListener listener)
    : function_(function), faults_(faults), listener_(std::move(listener)) {
    std::size_t number = 0;
    for (const InterfaceInfo& interface : function.identity().interfaces) {
        for (const EndpointInfo& endpoint : interface.endpoints) {
            endpoints_[endpoint.address].interface = number;
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
    if (const int error = faults_.take(BusFault::status, urb.endpoint)) {
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
        if (packet->size() < kMaxPacket || urb.actual == urb.length) {
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
        response = standard_request(function_, setup);
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

int UrbEngine::discard(ClientId client, std::uint64_t handle) {
    const auto matches = [client, handle](const Urb& urb) {
        return urb.client == client && urb.handle == handle;
    };
    for (auto& [address, endpoint] : endpoints_) {
        for (auto* urbs : {&endpoint.waiting, &endpoint.stuck}) {
            const auto found = std::find_if(urbs->begin(), urbs->end(), matches);
            if (found == urbs->end()) continue;
            Urb urb = std::move(*found);
            urbs->erase(found);
            finish(std::move(urb), -ENOENT);
            return 0;
        }
    }
    return EINVAL;
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
