#include "firmware/motion_profile.h"

#include <algorithm>
#include <cmath>

namespace jovusim {

namespace {

/// Braking may be that much harder than asked for, to make up for the length of a step.
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

    // Close and slow enough to be there with this step. Less than a step of either ramp cannot be
    // planned: the course would go to and fro about its end.
    const double ramp = std::max(limits_.accel, limits_.decel) * seconds;
    if (left <= (std::fabs(before) + ramp) * seconds && std::fabs(before) <= 2 * ramp) {
        accel_ = -velocity_ / seconds;
        velocity_ = 0;
        position_ = target_;
        phase_ = Phase::done;
        return;
    }

    double after = before;
    if (before < 0) {  // still going the other way
        after = std::min(before + limits_.decel * seconds, 0.0);
        phase_ = Phase::decelerating;
    } else if (before * before / (2 * limits_.decel) + before * seconds >= left) {
        const double needed = before * before / (2 * left);
        const double brake = std::clamp(needed, limits_.decel, kBrakeReserve * limits_.decel);
        after = std::max(before - brake * seconds, 0.0);
        phase_ = Phase::decelerating;
    } else if (before > limits_.speed) {  // the limit was lowered on the way
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

}  // namespace jovusim
