/// @file
/// The machine behind the firmware: what moves, heats and prints.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "firmware/heater.h"
#include "firmware/print_job.h"
#include "firmware/types.h"

namespace jovusim {

/// X, Y, Z and the extruder, in millimetres.
enum Axis : std::uint8_t { kX, kY, kZ, kE };
constexpr std::size_t kAxisCount = 4;

/// State of the machine, advanced by the clock that is handed in.
class Machine {
public:
    /// @param pace seconds of machine time in one second of the clock, greater than 0
    explicit Machine(double pace) : pace_(pace) {}

    /// Lets time go by up to that moment.
    void advance(Millis now);

    /// Something was asked of the machine: it is not idle.
    void note_activity() { last_activity_ = seconds_; }

    int seconds_since_boot() const { return static_cast<int>(seconds_); }
    int seconds_idle() const { return static_cast<int>(seconds_ - last_activity_); }

    /// Sets the temperature that the extruder holds while no job asks for one.
    void set_manual_target(double celsius) { manual_target_ = celsius; }
    double target() const;

    const Heater& extruder() const { return extruder_; }
    PrintJob& job() { return job_; }
    const PrintJob& job() const { return job_; }

    std::array<double, kAxisCount>& position() { return position_; }

    /// The text on the machine's display.
    std::string display;

    /// 0 to 255.
    int fan = 0;

private:
    double pace_;
    std::optional<Millis> now_;
    double seconds_ = 0;
    double last_activity_ = 0;
    double manual_target_ = 0;
    Heater extruder_;
    PrintJob job_;
    std::array<double, kAxisCount> position_{};
};

}  // namespace jovusim
