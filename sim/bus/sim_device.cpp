// SPDX-License-Identifier: Apache-2.0
#include "bus/sim_device.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "bus/enumeration.h"
#include "bus/types.h"

namespace jovusim {

SimDevice::SimDevice(BusAddress address, std::unique_ptr<UsbFunction> function,
                     std::function<void()> wake, UrbListener listener)
    : address_(address),
      wake_(std::move(wake)),
      function_(std::move(function)),
      identity_(function_->identity()),
      engine_(*function_, faults_, std::move(listener)) {
    node_path_ = node_.path();
}

SimDevice::~SimDevice() {
    unplug();
}

ClientId SimDevice::open() {
    const MutexLock lock(mutex_);
    if (clients_.empty()) function_->host_opened();
    const ClientId client = next_client_++;
    clients_.insert(client);
    ++counters_.opens;
    return client;
}

void SimDevice::close(ClientId client) {
    const MutexLock lock(mutex_);
    engine_.forget(client);
    for (auto it = claims_.begin(); it != claims_.end();) {
        it = it->second == client ? claims_.erase(it) : std::next(it);
    }
    clients_.erase(client);
    if (clients_.empty()) function_->host_closed();
    update_state(now_ms());
}

int SimDevice::claim(ClientId client, unsigned interface) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (interface >= identity().interfaces.size()) return ENOENT;
    if (is_held_by_other(client, interface)) return kContended;
    if (const int error = faults_.take(BusFault::claim, 0)) {
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
    engine_.discard_interface(interface);
    ++counters_.releases;
    update_state(now_ms());
    return 0;
}

int SimDevice::submit(Urb urb) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (!urb.control) {
        const auto interface = engine_.interface_of(urb.endpoint);
        if (!interface) return ENOENT;
        if (is_held_by_other(urb.client, *interface)) return kContended;
        // As in the kernel, the first use of an endpoint claims its interface.
        if (claims_.emplace(*interface, urb.client).second) ++counters_.implicit_claims;
    }
    const Millis now = now_ms();
    if (const int error = engine_.submit(std::move(urb), now)) return error;
    if (engine_.unplug_requested()) unplug_locked();
    update_state(now);
    return 0;
}

int SimDevice::discard(ClientId client, std::uint64_t handle) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    const int error = engine_.discard(client, handle);
    update_state(now_ms());
    return error;
}

int SimDevice::reap(ClientId client, std::optional<Urb>& urb) {
    const MutexLock lock(mutex_);
    ++counters_.reaps;
    urb = engine_.reap(client);
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
    engine_.end_all(-ENOENT);
    claims_.clear();
    function_->bus_reset(now);
    update_state(now);
    return unplugged_ ? ENODEV : 0;
}

int SimDevice::set_configuration(unsigned value) {
    const MutexLock lock(mutex_);
    if (unplugged_) return ENODEV;
    if (!claims_.empty()) return EBUSY;
    if (value != kConfigurationValue) return EINVAL;
    function_->configure();
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
    engine_.end_all(-ESHUTDOWN);
    // The hang-up makes libusb reap the ended transfers and then get ENODEV.
    node_.hang_up();
    wake_();
}

/// Updates the node and the due time. Call it after every change that can finish a transfer or
/// produce output.
void SimDevice::update_state(Millis now) {
    if (unplugged_) return;
    if (function_->disconnect_due(now)) {
        disconnected_itself_ = true;
        unplug_locked();
        return;
    }
    node_.set_writable(engine_.has_finished());
    const auto due = due_at(now);
    if (due && (!announced_due_ || *due < *announced_due_)) {
        announced_due_ = due;
        wake_();
    }
}

/// When tick() has to be called next.
std::optional<Millis> SimDevice::due_at(Millis now) const {
    if (unplugged_) return std::nullopt;
    auto due = function_->next_tick();
    // Output that is already due waits for a transfer; the clock does not change that.
    const auto output = function_->next_due();
    if (output && *output > now && (!due || *output < *due)) due = output;
    return due;
}

void SimDevice::tick() {
    const MutexLock lock(mutex_);
    const Millis now = now_ms();
    function_->tick(now);
    engine_.pump(now);
    update_state(now);
}

std::optional<Millis> SimDevice::next_due() {
    const MutexLock lock(mutex_);
    announced_due_ = due_at(now_ms());
    return announced_due_;
}

void SimDevice::with_controller(const std::function<void(Controller&, Millis)>& work) {
    const MutexLock lock(mutex_);
    const Millis now = now_ms();
    auto* controller = dynamic_cast<Controller*>(function_.get());
    if (controller == nullptr) {
        throw std::runtime_error("the device at " + address_.to_string() + " is in DFU mode");
    }
    work(*controller, now);
    engine_.pump(now);
    update_state(now);
}

void SimDevice::with_function(const std::function<void(UsbFunction&, Millis)>& work) {
    const MutexLock lock(mutex_);
    const Millis now = now_ms();
    work(*function_, now);
    engine_.pump(now);
    update_state(now);
}

std::unique_ptr<UsbFunction> SimDevice::take_successor() {
    const MutexLock lock(mutex_);
    return disconnected_itself_ ? function_->successor() : nullptr;
}

void SimDevice::with_faults(const std::function<void(FaultTable&)>& work) {
    const MutexLock lock(mutex_);
    work(faults_);
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
                {"releases", counters_.releases},
                {"endpoints", engine_.stats()}};
    out.update(function_->stats(now_ms()));
    return out;
}

void SimDevice::print_violations() {
    std::vector<std::string> sentences;
    {
        const MutexLock lock(mutex_);
        sentences = function_->take_violations();
    }
    for (const std::string& sentence : sentences) {
        std::fprintf(stderr, "jovu-sim: device %s: %s\n", address_.to_string().c_str(),
                     sentence.c_str());
    }
}

}  // namespace jovusim
