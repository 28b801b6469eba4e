// SPDX-License-Identifier: Apache-2.0
#include "firmware/servo/servo.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace jovusim {

namespace {

constexpr double kLoopSeconds = 0.001;

/// How long an axis may take to arrive after the end of its profile, in runs of the loop.
constexpr std::uint32_t kSettleLimit = 500;
constexpr double kAtRest = 1.0;  ///< mm/s

/// Within this distance friction exceeds the drive of the loop: the axis creeps, one step a run.
constexpr double kCreepDistance = 0.02;  ///< mm
constexpr double kCreepStep = 0.001;     ///< mm

constexpr double kTuningDistance = 10;  ///< mm to either side
constexpr MotionLimits kTuning{80, 2000, 2000};
constexpr std::uint32_t kTuningPause = 120;

bool positive(double value) {
    return std::isfinite(value) && value > 0;
}

}  // namespace

Servo::Servo(std::string name, double travel, double units_per_mm)
    : name_(std::move(name)), travel_(travel) {
    config_.units_per_mm = units_per_mm;
}

bool Servo::configure(const ServoConfig& config) {
    if (config.interrupt_frequency == 0 || config.pwm_cap <= 0 || !positive(config.units_per_mm) ||
        !positive(config.speed_max) || !positive(config.accel_max)) {
        return false;
    }
    config_ = config;
    return true;
}

std::int32_t Servo::to_native(double client) const {
    constexpr double kLeast = std::numeric_limits<std::int32_t>::min();
    constexpr double kMost = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(
        std::lround(std::clamp(client * config_.units_per_mm, kLeast, kMost)));
}

bool Servo::in_travel(double position) const {
    if (travel_ > 0) return position >= 0 && position <= travel_;
    return std::fabs(position * config_.units_per_mm) <= std::numeric_limits<std::int32_t>::max();
}

MoveResult Servo::move(const MoveOrder& order) {
    if (order.type >= kMoveTypeCount || !positive(order.limits.speed) ||
        !positive(order.limits.accel) || !positive(order.limits.decel)) {
        return MoveResult::bad_value;
    }
    if (order.limits.speed > config_.speed_max || order.limits.accel > config_.accel_max ||
        order.limits.decel > config_.accel_max) {
        return MoveResult::out_of_range;
    }
    MoveOrder absolute = order;
    if (order.type == kMoveRelative) {
        const double ratio = order.slaved ? order.slave_ratio : 1;
        absolute.target = home() + order.distance * ratio;
    }
    if (!in_travel(absolute.target)) return MoveResult::out_of_range;
    if (task_ == Task::move) return MoveResult::busy;
    // The encoder has no positions between its units.
    absolute.target = to_client(to_native(absolute.target));
    if (order.start_sync) {
        waiting_ = absolute;
    } else {
        begin(absolute);
    }
    return MoveResult::ok;
}

void Servo::begin(const MoveOrder& order) {
    order_ = order;
    waiting_.reset();
    task_ = Task::move;
    metrics_ = {};
    stalled_ = false;
    pause_ = cycles_ = settling_ = capped_ = 0;
    profile_.go(order.target, order.limits);
}

void Servo::drive_to(double position, double speed) {
    MoveOrder order;
    order.target = to_client(to_native(position));
    order.limits = {std::min(speed, config_.speed_max), config_.accel_max / 4,
                    config_.accel_max / 4};
    begin(order);
}

void Servo::start_waiting_move() {
    if (waiting_) begin(MoveOrder(*waiting_));
}

void Servo::put_idle() {
    waiting_.reset();
    task_ = Task::none;
    profile_.rest_at(motor_.position());
    motor_.rest_at(motor_.position());
}

void Servo::set_position(double client) {
    put_idle();
    profile_.rest_at(client);
    motor_.rest_at(client);
}

void Servo::set_backlash(int native, bool flush) {
    motor_.set_play(to_client(native), flush);
}

void Servo::set_trace(bool on) {
    if (on && !traced_ && task_ == Task::none && !waiting_) {
        home_ = profile_.target();
        task_ = Task::tune;
        outbound_ = true;
        begin_tuning_leg();
    } else if (!on && task_ == Task::tune) {
        task_ = Task::go_back;
        pause_ = settling_ = 0;
        profile_.go(home_, kTuning);
    }
    traced_ = on;
}

void Servo::begin_tuning_leg() {
    double end = home_ + (outbound_ ? kTuningDistance : -kTuningDistance);
    if (travel_ > 0) end = std::clamp(end, std::min(home_, 0.0), std::max(home_, travel_));
    outbound_ = !outbound_;
    stalled_ = false;
    pause_ = settling_ = capped_ = 0;
    profile_.go(to_client(to_native(end)), kTuning);
}

ModifyResult Servo::check(const MoveModifier& modifier) const {
    if (task_ != Task::move || profile_.done()) return ModifyResult::not_moving;
    const MotionLimits& limits = modifier.limits;
    const bool sane = limits.speed >= 0 && limits.speed <= config_.speed_max && limits.accel >= 0 &&
                      limits.accel <= config_.accel_max && limits.decel >= 0 &&
                      limits.decel <= config_.accel_max;
    if (modifier.type >= kModifierTypeCount || !sane) return ModifyResult::bad_value;
    if (modifier.type == kModifyTarget && !in_travel(modifier.position)) {
        return ModifyResult::bad_value;
    }
    if (modifier.validation_position) {
        const double ahead = *modifier.validation_position - profile_.position();
        if (ahead * (profile_.target() - profile_.position()) <= 0) return ModifyResult::too_late;
    }
    return ModifyResult::ok;
}

ModifyResult Servo::modify(const MoveModifier& modifier, bool validate) {
    const ModifyResult fault = check(modifier);
    if (fault != ModifyResult::ok && (validate || fault != ModifyResult::too_late)) return fault;
    if (modifier.type == kModifyStop) {
        profile_.stop();
        return ModifyResult::ok;
    }
    MotionLimits limits = profile_.limits();
    if (modifier.limits.speed > 0) limits.speed = modifier.limits.speed;
    if (modifier.limits.accel > 0) limits.accel = modifier.limits.accel;
    if (modifier.limits.decel > 0) limits.decel = modifier.limits.decel;
    const double target = modifier.type == kModifyTarget ? to_client(to_native(modifier.position))
                                                         : profile_.target();
    profile_.go(target, limits);
    return ModifyResult::ok;
}

void Servo::step() {
    if (task_ == Task::none) return;
    if (pause_ > 0) {
        if (--pause_ == 0) begin_tuning_leg();
        return;
    }
    if (task_ == Task::move && order_.max_cycles != 0 && ++cycles_ == order_.max_cycles) {
        profile_.stop();
    }
    profile_.step(kLoopSeconds);
    motor_.step({profile_.position(), profile_.velocity(), profile_.acceleration()}, config_.gains,
                config_.pwm_cap, kLoopSeconds);
    if (task_ == Task::move) measure();
    capped_ = motor_.saturated() ? capped_ + 1 : 0;
    if (capped_ > config_.pwm_cap_time && !(task_ == Task::move && order_.ignore_stalls)) {
        put_idle();
        stalled_ = true;
    } else if (profile_.done()) {
        settle();
    }
}

void Servo::measure() {
    if (order_.metric_skip > 0) {
        --order_.metric_skip;
        return;
    }
    const double error = profile_.position() - motor_.position();
    ++metrics_.n;
    const double delta = error - metrics_.mean;
    metrics_.mean += delta / metrics_.n;
    metrics_.m2 += delta * (error - metrics_.mean);
}

void Servo::settle() {
    const double error = profile_.position() - motor_.position();
    const bool at_rest = std::fabs(motor_.velocity()) <= kAtRest;
    if (at_rest && std::fabs(error) <= kCreepDistance) {
        motor_.creep(std::clamp(error, -kCreepStep, kCreepStep));
    }
    const bool arrived = at_rest && std::fabs(error) <= kCreepStep;
    if (!arrived && ++settling_ <= kSettleLimit) return;
    // An axis that cannot arrive with its gains stays at its position.
    const double end = arrived ? profile_.position() : motor_.position();
    profile_.rest_at(end);
    motor_.rest_at(end);
    finish();
}

void Servo::finish() {
    settling_ = 0;
    if (task_ == Task::tune) {
        pause_ = kTuningPause;
    } else {
        task_ = Task::none;
    }
}

double Servo::home() const {
    return task_ == Task::tune || task_ == Task::go_back ? home_ : profile_.target();
}

double Servo::target() const {
    if (waiting_) return waiting_->target;
    return home();
}

MoveDirection Servo::direction() const {
    if (profile_.done()) return MoveDirection::stationary;
    return profile_.target() >= profile_.position() ? MoveDirection::positive
                                                    : MoveDirection::negative;
}

ServoState Servo::state() const {
    if (stalled_) return ServoState::stalled;
    if (waiting_) return ServoState::waiting;
    switch (profile_.phase()) {
        case MotionProfile::Phase::accelerating:
            return ServoState::accelerating;
        case MotionProfile::Phase::cruising:
            return ServoState::cruising;
        case MotionProfile::Phase::decelerating:
            return ServoState::decelerating;
        case MotionProfile::Phase::done:
            break;
    }
    return task_ == Task::none || pause_ > 0 ? ServoState::idle : ServoState::settling;
}

TraceSample Servo::sample(int number, std::uint32_t count) const {
    constexpr double kMostPwm = std::numeric_limits<std::int16_t>::max();
    return {number,
            state(),
            count,
            to_native(profile_.position()),
            to_native(motor_.position()),
            static_cast<std::int32_t>(std::lround(std::clamp(motor_.pwm(), -kMostPwm, kMostPwm))),
            to_native(motor_.play_left())};
}

Json Servo::stats() const {
    return {{"name", name_},        {"position", to_native(position())},
            {"client", position()}, {"target", target()},
            {"active", active()},   {"state", static_cast<int>(state())},
            {"traced", traced_}};
}

Servo* ServoBank::find(std::int64_t number) {
    if (number < 0 || number >= static_cast<std::int64_t>(servos_.size())) return nullptr;
    return &servos_[static_cast<std::size_t>(number)];
}

void ServoBank::start_waiting_moves() {
    for (Servo& servo : servos_)
        servo.start_waiting_move();
}

std::size_t ServoBank::traced() const {
    return static_cast<std::size_t>(std::count_if(
        servos_.begin(), servos_.end(), [](const Servo& servo) { return servo.traced(); }));
}

bool ServoBank::idle() const {
    return std::none_of(servos_.begin(), servos_.end(),
                        [](const Servo& servo) { return servo.active() || servo.traced(); });
}

void ServoBank::advance(std::uint64_t milliseconds, std::vector<TraceSample>* samples) {
    for (; milliseconds > 0 && !idle(); --milliseconds) {
        ++count_;
        int number = 0;
        for (Servo& servo : servos_) {
            servo.step();
            if (samples != nullptr && servo.traced()) {
                samples->push_back(servo.sample(number, count_));
            }
            ++number;
        }
    }
    count_ += static_cast<std::uint32_t>(milliseconds);
}

void ServoBank::reset() {
    const std::uint32_t count = count_;
    *this = ServoBank();
    count_ = count;
}

Json ServoBank::stats() const {
    Json out = Json::array();
    for (const Servo& servo : servos_)
        out.push_back(servo.stats());
    return out;
}

}  // namespace jovusim
