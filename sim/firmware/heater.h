/// @file
/// The extruder's heater.
#pragma once

namespace jovusim {

/// A heater that follows its target with a constant lag and never overshoots.
class Heater {
public:
    /// @param celsius 0 turns the heater off
    void set_target(double celsius) { target_ = celsius; }

    /// @param seconds machine time that has gone by
    void advance(double seconds);

    double temperature() const { return temperature_; }
    double target() const { return target_; }

private:
    double target_ = 0;
    double temperature_ = kAmbient;

    static constexpr double kAmbient = 23.5;
};

}  // namespace jovusim
