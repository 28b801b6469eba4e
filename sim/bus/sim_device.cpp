// SPDX-License-Identifier: Apache-2.0
#include "bus/sim_device.h"

#include <cerrno>
#include <utility>

#include "device/descriptors.h"
#include "device/types.h"

namespace jovusim {

SimDevice::SimDevice(BusAddress address, std::unique_ptr<UsbFunction> function,
                     std::function<void()> wake, UrbListener listener)
    : address_(address),
      wake_(std::move(wake)),
      core_(std::move(function), UsbSpeed::full, std::move(listener)),
      identity_(core_.function().identity()) {
    node_path_ = node_.path();
}

SimDevice::~SimDevice() {
    unplug();
}

ClientId SimDevice::open() {
    const MutexLock lock(mutex_);
    if (clients_.empty()) core_.function().host_opened(now_ms());
    const ClientId client = next_client_++;
    clients_.insert(client);
    ++counters_.opens;
    return client;
}

void SimDevice::close(ClientId client) {
    const MutexLock lock(mutex_);
    core_.engine().forget(client);
    for (auto it = claims_.begin(); it != claims_.end();) {
        it = it->second == client ? claims_.erase(it) : std::next(it);
    }
    clients_.erase(client);
    if (clients_.empty()) core_.function().host_closed();
    update_state(now_ms());
}

int SimDevice::claim(ClientId client, unsigned interface) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (interface >= identity().interfaces.size()) return ENOENT;
    if (is_held_by_other(client, interface)) return kContended;
    if (const int error = core_.faults().take(BusFault::claim, 0)) {
        ++counters_.refused_claims;
        return error;
    }
    claims_[interface] = client;
    ++counters_.claims;
    return 0;
}

bool SimDevice::is_held_by_other(ClientId client, std::size_t interface) const {
    const auto found = claims_.find(interface);
    return found != claims_.end() && found->second != client;
}

int SimDevice::release(ClientId client, unsigned interface) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    const auto found = claims_.find(interface);
    if (found == claims_.end() || found->second != client) return EINVAL;
    claims_.erase(found);
    core_.engine().discard_interface(interface);
    ++counters_.releases;
    update_state(now_ms());
    return 0;
}

int SimDevice::submit(Urb urb) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (!urb.control) {
        const auto interface = core_.engine().interface_of(urb.endpoint);
        if (!interface) return ENOENT;
        if (is_held_by_other(urb.client, *interface)) return kContended;
        // As in the kernel, the first use of an endpoint claims its interface.
        if (claims_.emplace(*interface, urb.client).second) ++counters_.implicit_claims;
    }
    const Millis now = now_ms();
    if (const int error = core_.engine().submit(std::move(urb), now)) return error;
    update_state(now);
    return 0;
}

int SimDevice::discard(ClientId client, std::uint64_t handle) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    const int error = core_.engine().discard(client, handle);
    update_state(now_ms());
    return error;
}

int SimDevice::reap(ClientId client, std::optional<Urb>& urb) {
    const MutexLock lock(mutex_);
    ++counters_.reaps;
    urb = core_.engine().reap(client);
    if (urb) {
        update_state(now_ms());
        return 0;
    }
    if (unplugged_) return ENODEV;
    ++counters_.eagains;
    return EAGAIN;
}

int SimDevice::reset() {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    const Millis now = now_ms();
    core_.engine().end_all(-ENOENT);
    claims_.clear();
    core_.function().bus_reset(now);
    update_state(now);
    return unplugged_ ? ENODEV : 0;
}

int SimDevice::set_configuration(unsigned value) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (!claims_.empty()) return EBUSY;
    if (value != kConfigurationValue) return EINVAL;
    core_.engine().select_configuration(value);
    return 0;
}

int SimDevice::clear_halt(unsigned endpoint) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    core_.engine().clear_halt(static_cast<std::uint8_t>(endpoint));
    return 0;
}

int SimDevice::check_present() {
    return unplugged_ ? ENODEV : 0;
}

void SimDevice::count_ioctl() {
    const MutexLock lock(mutex_);
    ++counters_.ioctls;
}

void SimDevice::count_refused_claim() {
    const MutexLock lock(mutex_);
    ++counters_.refused_claims;
}

void SimDevice::unplug() {
    const MutexLock lock(mutex_);
    unplug_locked();
}

void SimDevice::unplug_locked() {
    if (unplugged_) return;
    unplugged_ = true;
    core_.engine().end_all(-ESHUTDOWN);
    // The hang-up makes libusb reap the ended transfers and then get ENODEV.
    node_.hang_up();
    wake_();
}

/// Updates the node and the due time. Call it after every change that can finish a transfer or
/// produce output.
void SimDevice::update_state(Millis now) {
    if (unplugged_) return;
    if (core_.unplug_due(now)) {
        unplug_locked();
        return;
    }
    node_.set_writable(core_.engine().has_finished());
    const auto due = core_.due_at(now);
    if (due && (!announced_due_ || *due < *announced_due_)) {
        announced_due_ = due;
        wake_();
    }
}

void SimDevice::tick() {
    const MutexLock lock(mutex_);
    const Millis now = now_ms();
    core_.tick(now);
    update_state(now);
}

std::optional<Millis> SimDevice::next_due() {
    const MutexLock lock(mutex_);
    announced_due_ = unplugged_ ? std::nullopt : core_.due_at(now_ms());
    return announced_due_;
}

void SimDevice::with_function(const std::function<void(UsbFunction&, Millis)>& work) {
    const MutexLock lock(mutex_);
    const Millis now = now_ms();
    work(core_.function(), now);
    core_.engine().pump(now);
    update_state(now);
}

std::unique_ptr<UsbFunction> SimDevice::take_successor() {
    const MutexLock lock(mutex_);
    return core_.take_successor();
}

void SimDevice::with_faults(const std::function<void(FaultTable&)>& work) {
    const MutexLock lock(mutex_);
    work(core_.faults());
}

std::size_t SimDevice::open_clients() {
    const MutexLock lock(mutex_);
    return clients_.size();
}

Json SimDevice::stats() {
    const MutexLock lock(mutex_);
    Json out = {{"address", address_.to_string()},
                {"clients", clients_.size()},
                {"opens", counters_.opens},
                {"ioctls", counters_.ioctls},
                {"reaps", counters_.reaps},
                {"eagains", counters_.eagains},
                {"claims", counters_.claims},
                {"implicit_claims", counters_.implicit_claims},
                {"refused_claims", counters_.refused_claims},
                {"releases", counters_.releases}};
    core_.add_stats(out, now_ms());
    return out;
}

void SimDevice::print_violations() {
    std::vector<std::string> violations;
    {
        const MutexLock lock(mutex_);
        violations = core_.function().take_violations();
    }
    DeviceCore::print(violations, name());
}

}  // namespace jovusim
