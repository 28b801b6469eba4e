// SPDX-License-Identifier: Apache-2.0
#include "firmware/servo/servo_motion.h"

#include <algorithm>
#include <cmath>

namespace jovusim {

namespace {

/// Braking may exceed the limit by this factor, to compensate for the length of a step.
constexpr double kBrakeReserve = 1.5;

}  // namespace

void MotionProfile::rest_at(double position) {
    *this = {};
    position_ = target_ = position;
}

void MotionProfile::go(double target, const MotionLimits& limits) {
    target_ = target;
    limits_ = limits;
    phase_ = Phase::accelerating;
}

void MotionProfile::stop() {
    if (done()) return;
    const double way = velocity_ * velocity_ / (2 * limits_.decel);
    target_ = position_ + std::copysign(way, velocity_);
}

void MotionProfile::step(double seconds) {
    accel_ = 0;
    if (done()) return;
    const double way = target_ - position_;
    const double left = std::fabs(way);
    const double direction = std::copysign(1.0, way);
    const double before = velocity_ * direction;  // towards the target

    // Close and slow enough to arrive in this step. Below one step of either ramp the course would
    // oscillate about its target.
    const double ramp = std::max(limits_.accel, limits_.decel) * seconds;
    if (left <= (std::fabs(before) + ramp) * seconds && std::fabs(before) <= 2 * ramp) {
        accel_ = -velocity_ / seconds;
        velocity_ = 0;
        position_ = target_;
        phase_ = Phase::done;
        return;
    }

    double after = 0;
    if (before < 0) {  // still moving away from the target
        after = std::min(before + limits_.decel * seconds, 0.0);
        phase_ = Phase::decelerating;
    } else if (before * before / (2 * limits_.decel) + before * seconds >= left) {
        const double needed = before * before / (2 * left);
        const double brake = std::clamp(needed, limits_.decel, kBrakeReserve * limits_.decel);
        after = std::max(before - brake * seconds, 0.0);
        phase_ = Phase::decelerating;
    } else if (before > limits_.speed) {  // the limit was lowered during the move
        after = std::max(before - limits_.decel * seconds, limits_.speed);
        phase_ = Phase::decelerating;
    } else {
        after = std::min(before + limits_.accel * seconds, limits_.speed);
        phase_ = after < limits_.speed ? Phase::accelerating : Phase::cruising;
    }
    accel_ = direction * (after - before) / seconds;
    position_ += direction * (before + after) / 2 * seconds;
    velocity_ = direction * after;
}

namespace {

constexpr double kDrive = 20;        ///< mm/s^2 for each step of PWM
constexpr double kDrag = 40;         ///< mm/s^2 lost for each mm/s: the motor's own voltage
constexpr double kFriction = 500;    ///< mm/s^2
constexpr double kTakeUpSpeed = 40;  ///< mm/s of play
constexpr double kFastest = 2000;    ///< mm/s
constexpr double kIntegralLimit = 10;

int sign(double value) {
    if (value == 0) return 0;
    return std::signbit(value) ? -1 : 1;
}

}  // namespace

void ServoMotor::rest_at(double position) {
    position_ = position;
    velocity_ = pwm_ = integral_ = 0;
    saturated_ = false;
}

void ServoMotor::set_play(double play, bool taken_up) {
    play_ = std::fabs(play);
    if (taken_up || play_left_ > play_) play_left_ = 0;
}

void ServoMotor::step(const ServoDemand& demand, const ServoGains& gains, double cap,
                      double seconds) {
    turn(seconds);
    const double error = demand.position - position_;
    const double wanted = gains.kp * error + gains.ki * integral_ +
                          gains.kd * (demand.velocity - velocity_) +
                          gains.ka * demand.acceleration + gains.kv * demand.velocity +
                          gains.kf * sign(demand.velocity);
    pwm_ = std::isfinite(wanted) ? std::clamp(wanted, -cap, cap) : 0;
    saturated_ = pwm_ != wanted;
    if (!saturated_) {
        integral_ = std::clamp(integral_ + error * seconds, -kIntegralLimit, kIntegralLimit);
    }
}

void ServoMotor::turn(double seconds) {
    const int turning = sign(velocity_) != 0 ? sign(velocity_) : sign(pwm_);
    if (turning != 0 && turning != direction_) {
        if (direction_ != 0) play_left_ = play_ - play_left_;
        direction_ = turning;
    }
    if (play_left_ > 0) {  // the motor turns, the axis does not
        play_left_ = std::max(play_left_ - kTakeUpSpeed * seconds, 0.0);
        velocity_ = 0;
        return;
    }

    const double drive = kDrive * pwm_ - kDrag * velocity_;
    if (velocity_ == 0 && std::fabs(drive) <= kFriction) return;  // it sticks
    const int against = velocity_ != 0 ? sign(velocity_) : sign(drive);
    double after = velocity_ + (drive - kFriction * against) * seconds;
    // Friction stops a motor; it does not reverse it.
    if (sign(after) == -sign(velocity_) && std::fabs(drive) <= kFriction) after = 0;
    after = std::clamp(after, -kFastest, kFastest);
    position_ += (velocity_ + after) / 2 * seconds;
    velocity_ = after;
}

}  // namespace jovusim
