// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/machine.h"

#include <algorithm>
#include <utility>

namespace jovusim {

namespace {

// Step of heater and job: the heater follows a new target of the job from the next step on.
constexpr double kStepSeconds = 0.1;
constexpr double kLongestWait = 3600.0;
constexpr Millis kLongestServoWait = 3'600'000;
/// Moves would jump when the servos made up for more.
constexpr std::uint64_t kMostServoLag = 2000;
constexpr double kFilamentSeconds = 3.0;

/// Delay before the disconnect, so that the host can read the response.
constexpr Millis kLeaveDelay = 300;

}  // namespace

const char* to_string(FilamentState state) {
    switch (state) {
        case FilamentState::loaded:
            return "loaded";
        case FilamentState::unloading:
            return "unloading";
        case FilamentState::empty:
            return "empty";
        case FilamentState::loading:
            return "loading";
    }
    return "unknown";
}

void Machine::advance(Millis now, std::optional<std::size_t> most_samples) {
    if (!now_) now_ = now;
    const Millis gone = now - *now_;
    now_ = now;
    advance_servos(static_cast<std::uint64_t>(std::min(gone, kLongestServoWait)), most_samples);
    double left = static_cast<double>(gone) / 1000.0 * time_scale_;
    seconds_ += left;
    filament_left_ = std::max(filament_left_ - left, 0.0);
    if (filament_left_ <= 0) {
        if (filament_ == FilamentState::loading) filament_ = FilamentState::loaded;
        if (filament_ == FilamentState::unloading) filament_ = FilamentState::empty;
    }
    // Bounds the loop below; the machine is in a steady state long before.
    left = std::min(left, kLongestWait);
    while (left > 0) {
        const double step = std::min(left, kStepSeconds);
        heater_.set_job_target(job_.temperature_wanted());
        heater_.advance(step);
        job_.advance(step);
        left -= step;
    }
    heater_.set_job_target(job_.temperature_wanted());
    if (job_.running()) note_activity();
}

void Machine::advance_servos(std::uint64_t milliseconds, std::optional<std::size_t> most_samples) {
    const std::size_t traced = recording_ ? servos_.traced() : 0;
    std::uint64_t runs = servo_lag_ + milliseconds;
    if (traced > 0) {
        // A host that does not read gets no samples of before.
        runs = most_samples ? std::min<std::uint64_t>(runs, *most_samples / traced) : milliseconds;
    }
    servo_lag_ = std::min(servo_lag_ + milliseconds - runs, kMostServoLag);
    servos_.advance(runs, recording_ ? &samples_ : nullptr);
}

std::optional<Millis> Machine::next_due() const {
    std::optional<Millis> due = disconnect_at_;
    if (recording_ && now_ && servos_.traced() > 0)
        due = std::min(*now_ + 1, due.value_or(*now_ + 1));
    return due;
}

void Machine::reset() {
    heater_.reset();
    servos_.reset();
    gpio_.reset();
    wifi_.reset();
    panel_ = {};
    job_ = {};
    display.clear();
    fan = 0;
    network_tasks = true;
    seconds_ = last_activity_ = 0;
}

bool Machine::begin_filament_change(FilamentState change) {
    if (job_.running() || filament_left_ > 0) return false;
    filament_ = change;
    filament_left_ = kFilamentSeconds;
    return true;
}

void Machine::record_samples(bool on) {
    recording_ = on;
    if (!on) samples_.clear();
}

std::vector<TraceSample> Machine::take_samples() {
    return std::exchange(samples_, {});
}

void Machine::enter_dfu_mode(Millis now) {
    if (!disconnect_at_) disconnect_at_ = now + kLeaveDelay;
}

Json Machine::stats() const {
    return {{"heater", heater_.stats()},       {"servos", servos_.stats()},
            {"gpio", gpio_.stats()},           {"leds", panel_.led_stats()},
            {"hbridges", panel_.duty_stats()}, {"wifi", wifi_.stats()},
            {"sd", storage_.stats()},          {"filament", to_string(filament_)},
            {"network_tasks", network_tasks},  {"fan", fan}};
}

}  // namespace jovusim
