/// @file
/// The extruder's heater.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "firmware/base/types.h"

namespace jovusim {

/// What the heater is doing.
enum class HeaterState : std::uint8_t {
    off = 0,
    warming = 1,
    at_target = 2,  ///< within the guardband
    cooling = 3,    ///< above its target
    fault = 4,      ///< off until it is turned off or, with the cause gone, on again
};

enum class HeaterFault : std::uint8_t {
    none = 0,
    unplugged = 1,  ///< asked to warm, and there is no heater
    too_hot = 2,    ///< above its maximum temperature
};

/// Parameters of the control loop, by their numbers.
enum HeaterParameter : std::uint8_t {
    kHeaterKp,         ///< percent of duty per degree
    kHeaterKi,         ///< kept, without an effect: the model needs no integral part
    kHeaterKd,         ///< kept, likewise
    kHeaterGuardband,  ///< degrees around the target that count as at it
    kHeaterMaximum,    ///< degrees
    kHeaterLag,        ///< seconds in which the distance to the target shrinks to 37 percent
    kHeaterParameterCount,
};

/// Variables, by their numbers. Temperature and duty are read-only.
enum HeaterVariable : std::uint8_t {
    kHeaterTarget,       ///< degrees to hold while it is on
    kHeaterTemperature,  ///< degrees
    kHeaterDuty,         ///< percent of its power
    kHeaterAmbient,      ///< degrees around it
    kHeaterVariableCount,
};

/// A heater that follows its target with a constant lag and never overshoots. Temperatures are in
/// degrees Celsius. A running job has its own target, which counts before the variable.
class Heater {
public:
    Heater();

    /// Returns false when it cannot: unplugged, or too hot. It is then in fault.
    bool turn_on();
    /// Also ends a fault.
    void turn_off();

    /// What a running job wants, 0 without one.
    void set_job_target(double celsius) { job_target_ = celsius; }

    /// Sets the target and turns on, or off for 0.
    void hold(double celsius);

    /// @name By number. A setter returns false for an unknown number, a read-only one and a value
    /// outside its range, a getter nothing for an unknown number.
    /// @{
    bool set_parameter(std::uint32_t number, double value);
    std::optional<double> parameter(std::uint32_t number) const;
    bool set_variable(std::uint32_t number, double value);
    std::optional<double> variable(std::uint32_t number) const;
    /// @}
    void reset_parameters();
    void reset_variables();

    /// Somebody connects or disconnects the heater.
    void set_plugged(bool plugged) { plugged_ = plugged; }

    /// @param seconds machine time that has gone by
    void advance(double seconds);

    /// Power-on: off, with the defaults. It is still as warm as it was, and plugged in or not.
    void reset();

    double temperature() const { return temperature_; }
    /// What it holds now; 0 when it is off.
    double target() const;
    HeaterState state() const;
    HeaterFault fault() const { return fault_; }
    bool in_guardband() const;
    Json stats() const;

private:
    double duty() const;

    bool plugged_ = true;
    bool on_ = false;
    double job_target_ = 0;
    double temperature_;
    HeaterFault fault_ = HeaterFault::none;
    std::array<double, kHeaterParameterCount> parameters_{};
    double variable_target_ = 0;
    double ambient_ = 0;
};

}  // namespace jovusim
