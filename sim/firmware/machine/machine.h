// SPDX-License-Identifier: Apache-2.0

/// @file
/// The machine: heater, servos, peripherals, Wi-Fi and print job.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firmware/base/types.h"
#include "firmware/machine/heater.h"
#include "firmware/machine/peripherals.h"
#include "firmware/machine/print_job.h"
#include "firmware/machine/wifi.h"
#include "firmware/servo/servo.h"

namespace jovusim {

/// State of the filament.
enum class FilamentState : std::uint8_t { loaded, unloading, empty, loading };

/// Its name in a status report.
const char* to_string(FilamentState state);

/// The machine. The owner passes the time in.
class Machine {
public:
    /// @param time_scale seconds of machine time in one second of the clock, greater than 0; servos
    ///               run in real time
    /// @param serial of the device
    Machine(double time_scale, const std::string& serial)
        : time_scale_(time_scale), wifi_(serial) {}

    /// Advances the machine to that moment.
    /// @param most_samples while a servo is traced, all servos run no longer than to make these; up
    ///     to two seconds that they missed are made up for later; nothing = no limit
    void advance(Millis now, std::optional<std::size_t> most_samples);

    /// The moment to which the machine has advanced, if any.
    std::optional<Millis> now() const { return now_; }

    /// The next moment at which the machine does something without a request, if any.
    std::optional<Millis> next_due() const;

    /// Records a request: the idle time restarts.
    void note_activity() { last_activity_ = seconds_; }

    int seconds_since_boot() const { return static_cast<int>(seconds_); }
    int seconds_idle() const { return static_cast<int>(seconds_ - last_activity_); }

    /// Power-on. The card, saved settings, temperature, filament and what is connected from outside
    /// stay.
    void reset();

    Heater& heater() { return heater_; }
    const Heater& heater() const { return heater_; }
    ServoBank& servos() { return servos_; }
    Gpio& gpio() { return gpio_; }
    Wifi& wifi() { return wifi_; }
    Storage& storage() { return storage_; }
    Panel& panel() { return panel_; }
    PrintJob& job() { return job_; }
    const PrintJob& job() const { return job_; }

    /// @param change loading or unloading. Returns false during such a change or a job.
    bool begin_filament_change(FilamentState change);
    FilamentState filament() const { return filament_; }

    /// Sets whether samples of traced servos are recorded.
    void record_samples(bool on);
    /// Returns the samples since the last call.
    std::vector<TraceSample> take_samples();

    /// Requests DFU mode: the device disconnects after a delay, so that the response can be read.
    void enter_dfu_mode(Millis now);
    std::optional<Millis> disconnect_at() const { return disconnect_at_; }

    /// The message on the display.
    std::string display;

    /// 0 to 255.
    int fan = 0;

    bool network_tasks = true;

    Json stats() const;

private:
    void advance_servos(std::uint64_t milliseconds, std::optional<std::size_t> most_samples);

    double time_scale_;
    std::optional<Millis> now_;
    double seconds_ = 0;
    double last_activity_ = 0;
    Heater heater_;
    ServoBank servos_;
    std::uint64_t servo_lag_ = 0;  ///< ms that the servos are behind
    Gpio gpio_;
    Wifi wifi_;
    Storage storage_;
    Panel panel_;
    PrintJob job_;
    FilamentState filament_ = FilamentState::loaded;
    double filament_left_ = 0;  ///< machine seconds until the change is done
    bool recording_ = true;
    std::vector<TraceSample> samples_;
    std::optional<Millis> disconnect_at_;
};

}  // namespace jovusim
