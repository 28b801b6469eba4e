/// @file
/// The machine behind the firmware: what moves, heats and prints.
#pragma once

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

/// Where the filament is.
enum class FilamentState : std::uint8_t { loaded, unloading, empty, loading };

/// The word for it in a status report.
const char* to_string(FilamentState state);

/// State of the machine, advanced by the clock that is handed in.
class Machine {
public:
    /// @param time_scale   seconds of machine time in one second of the clock, greater than 0.
    /// Servos run
    ///               by the clock itself.
    /// @param serial of the device
    Machine(double time_scale, const std::string& serial)
        : time_scale_(time_scale), wifi_(serial) {}

    /// Lets time go by up to that moment.
    void advance(Millis now);

    /// The next moment at which something happens that nobody asked for; nothing when the machine
    /// can be left alone until it is asked.
    std::optional<Millis> next_due() const;

    /// Something was asked of the machine: it is not idle.
    void note_activity() { last_activity_ = seconds_; }

    int seconds_since_boot() const { return static_cast<int>(seconds_); }
    int seconds_idle() const { return static_cast<int>(seconds_ - last_activity_); }

    /// All back to power-on. What needs no power stays: the card, saved settings, heat, filament,
    /// and what others have connected.
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

    /// @param change loading or unloading. Returns false while it is busy with that, or with a job.
    bool begin_filament_change(FilamentState change);
    FilamentState filament() const { return filament_; }

    /// Whether samples of traced servos are kept.
    void record_samples(bool on);
    /// The samples since the last call.
    std::vector<TraceSample> take_samples();

    /// The firmware update was asked for: it begins once the response has been read.
    void enter_dfu_mode(Millis now);
    std::optional<Millis> disconnect_at() const { return disconnect_at_; }

    /// The text on the machine's display.
    std::string display;

    /// 0 to 255.
    int fan = 0;

    bool network_tasks = true;

    Json stats() const;

private:
    double time_scale_;
    std::optional<Millis> now_;
    double seconds_ = 0;
    double last_activity_ = 0;
    Heater heater_;
    ServoBank servos_;
    Gpio gpio_;
    Wifi wifi_;
    Storage storage_;
    Panel panel_;
    PrintJob job_;
    FilamentState filament_ = FilamentState::loaded;
    double filament_left_ = 0;  ///< seconds until the change is done
    bool recording_ = true;
    std::vector<TraceSample> samples_;
    std::optional<Millis> disconnect_at_;
};

}  // namespace jovusim
