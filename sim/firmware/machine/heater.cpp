// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/heater.h"

#include <algorithm>
#include <cmath>

namespace jovusim {

namespace {

struct Range {
    double least;
    double most;
    double usual;

    bool holds(double value) const { return value >= least && value <= most; }
};

constexpr std::array<Range, kHeaterParameterCount> kParameters = {{
    {0, 1000, 12},       // kp
    {0, 1000, 0.5},      // ki
    {0, 1000, 4},        // kd
    {0.25, 50, 3},       // guardband
    {0, 350, 300},       // maximum
    {0.0625, 600, 0.75}  // lag
}};
constexpr double kUsualTarget = 210;
constexpr Range kAmbient = {-20, 60, 23.5};
constexpr double kFullDuty = 100;

/// A heater that has just reached its maximum is not too hot yet.
constexpr double kHotMargin = 5;

}  // namespace

Heater::Heater() {
    reset_parameters();
    reset_variables();
    temperature_ = ambient_;
}

void Heater::reset() {
    turn_off();
    job_target_ = 0;
    reset_parameters();
    reset_variables();
}

void Heater::reset_parameters() {
    for (std::size_t i = 0; i < parameters_.size(); ++i)
        parameters_[i] = kParameters[i].usual;
}

void Heater::reset_variables() {
    variable_target_ = kUsualTarget;
    ambient_ = kAmbient.usual;
}

bool Heater::turn_on() {
    fault_ = plugged_ ? HeaterFault::none : HeaterFault::unplugged;
    on_ = fault_ == HeaterFault::none;
    advance(0);
    return on_;
}

void Heater::turn_off() {
    on_ = false;
    fault_ = HeaterFault::none;
}

void Heater::hold(double celsius) {
    if (celsius <= 0) {
        turn_off();
    } else {
        variable_target_ = std::min(celsius, parameters_[kHeaterMaximum]);
        turn_on();
    }
}

double Heater::target() const {
    if (fault_ != HeaterFault::none) return 0;
    const double wanted = job_target_ > 0 ? job_target_ : on_ ? variable_target_ : 0;
    return std::min(wanted, parameters_[kHeaterMaximum]);
}

void Heater::advance(double seconds) {
    if (target() > 0 && !plugged_) fault_ = HeaterFault::unplugged;
    if (target() > 0 && temperature_ > parameters_[kHeaterMaximum] + kHotMargin) {
        fault_ = HeaterFault::too_hot;
    }
    if (fault_ != HeaterFault::none) on_ = false;
    const double goal = target() > 0 ? std::max(target(), ambient_) : ambient_;
    temperature_ = goal + (temperature_ - goal) * std::exp(-seconds / parameters_[kHeaterLag]);
}

HeaterState Heater::state() const {
    if (fault_ != HeaterFault::none) return HeaterState::fault;
    if (target() <= 0) return HeaterState::off;
    if (in_guardband()) return HeaterState::at_target;
    return temperature_ < target() ? HeaterState::warming : HeaterState::cooling;
}

bool Heater::in_guardband() const {
    return target() > 0 && std::fabs(temperature_ - target()) <= parameters_[kHeaterGuardband];
}

double Heater::duty() const {
    if (target() <= 0) return 0;
    const double span = std::max(parameters_[kHeaterMaximum] - ambient_, 1.0);
    const double holding = kFullDuty * (target() - ambient_) / span;
    const double catching_up = parameters_[kHeaterKp] * (target() - temperature_);
    return std::clamp(holding + catching_up, 0.0, kFullDuty);
}

bool Heater::set_parameter(std::uint32_t number, double value) {
    if (number >= parameters_.size() || !kParameters[number].holds(value)) return false;
    parameters_[number] = value;
    return true;
}

std::optional<double> Heater::parameter(std::uint32_t number) const {
    if (number >= parameters_.size()) return std::nullopt;
    return parameters_[number];
}

bool Heater::set_variable(std::uint32_t number, double value) {
    if (number == kHeaterTarget && value >= 0 && value <= parameters_[kHeaterMaximum]) {
        variable_target_ = value;
        return true;
    }
    if (number == kHeaterAmbient && kAmbient.holds(value)) {
        ambient_ = value;
        return true;
    }
    return false;
}

std::optional<double> Heater::variable(std::uint32_t number) const {
    switch (number) {
        case kHeaterTarget:
            return variable_target_;
        case kHeaterTemperature:
            return temperature_;
        case kHeaterDuty:
            return duty();
        case kHeaterAmbient:
            return ambient_;
        default:
            return std::nullopt;
    }
}

Json Heater::stats() const {
    return {{"temperature", temperature_},
            {"target", target()},
            {"state", static_cast<int>(state())},
            {"fault", static_cast<int>(fault_)},
            {"duty", duty()},
            {"plugged", plugged_}};
}

}  // namespace jovusim
