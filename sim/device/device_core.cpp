// SPDX-License-Identifier: Apache-2.0
#include "device/device_core.h"

#include <cstdio>
#include <utility>

namespace jovusim {

DeviceCore::DeviceCore(std::unique_ptr<UsbFunction> function, UsbSpeed speed, UrbListener listener)
    : function_(std::move(function)), engine_(*function_, faults_, speed, std::move(listener)) {}

void DeviceCore::tick(Millis now) {
    function_->tick(now);
    engine_.pump(now);
}

std::optional<Millis> DeviceCore::due_at(Millis now) const {
    auto due = function_->next_tick();
    // Output that is already due waits for a transfer; the clock does not change that.
    const auto output = function_->next_due();
    if (output && *output > now && (!due || *output < *due)) due = output;
    return due;
}

bool DeviceCore::unplug_due(Millis now) {
    if (engine_.unplug_requested()) return true;
    disconnected_itself_ = disconnected_itself_ || function_->disconnect_due(now);
    return disconnected_itself_;
}

std::unique_ptr<UsbFunction> DeviceCore::take_successor() {
    return disconnected_itself_ ? function_->successor() : nullptr;
}

void DeviceCore::add_stats(Json& out, Millis now) {
    out["endpoints"] = engine_.stats();
    out.update(function_->stats(now));
}

void DeviceCore::print(const std::vector<std::string>& violations, const std::string& device) {
    for (const std::string& violation : violations)
        std::fprintf(stderr, "jovu-sim: device %s: %s\n", device.c_str(), violation.c_str());
}

}  // namespace jovusim
