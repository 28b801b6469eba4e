// SPDX-License-Identifier: Apache-2.0

/// @file
/// The heater of the extruder.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "firmware/base/types.h"

namespace jovusim {

/// State of the heater.
enum class HeaterState : std::uint8_t {
    off = 0,
    warming = 1,
    at_target = 2,  ///< within the guardband
    cooling = 3,    ///< above its target
    fault = 4,      ///< off until turned off, or turned on without the cause
};

enum class HeaterFault : std::uint8_t {
    none = 0,
    unplugged = 1,  ///< turned on without a heater
    too_hot = 2,    ///< above its maximum temperature
};

/// Parameters of the control loop, by their numbers.
enum HeaterParameter : std::uint8_t {
    kHeaterKp,         ///< percent of duty per degree
    kHeaterKi,         ///< stored without effect
    kHeaterKd,         ///< stored without effect
    kHeaterGuardband,  ///< degrees around the target
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

/// A heater that follows its target with a first-order lag, without overshoot. Temperatures are in
/// degrees Celsius. The target of a running job takes precedence over the variable.
class Heater {
public:
    Heater();

    /// Returns false, and enters the fault state, when the heater is unplugged or too hot.
    bool turn_on();
    /// Turns off and ends a fault.
    void turn_off();

    /// Sets the target of a running job, 0 without one.
    void set_job_target(double celsius) { job_target_ = celsius; }

    /// Sets the target and turns on; 0 turns off.
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

    /// Connects or disconnects the heater.
    void set_plugged(bool plugged) { plugged_ = plugged; }

    /// @param seconds elapsed machine time
    void advance(double seconds);

    /// Power-on: off, with the defaults. The temperature and the connection stay.
    void reset();

    double temperature() const { return temperature_; }
    /// The current target; 0 when off.
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
