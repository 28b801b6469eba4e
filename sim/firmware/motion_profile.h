/// @file
/// The course of a move: where a servo should be at every moment.
#pragma once

#include <cstdint>

namespace jovusim {

/// How fast a move may be. All greater than 0.
struct MotionLimits {
    double speed = 0;  ///< mm/s
    double accel = 0;  ///< mm/s^2
    double decel = 0;  ///< mm/s^2
};

/// A trapezoid of speed over time, worked out step by step: limits and target can change on the
/// way, and the course goes on from the speed that it has.
class MotionProfile {
public:
    enum class Phase : std::uint8_t { done, accelerating, cruising, decelerating };

    /// Stops at that position.
    void rest_at(double position);

    void go(double target, const MotionLimits& limits);

    /// Slows down to a stop, which becomes the target.
    void stop();

    void step(double seconds);

    double position() const { return position_; }   ///< mm
    double velocity() const { return velocity_; }   ///< mm/s
    double acceleration() const { return accel_; }  ///< mm/s^2, in the last step
    double target() const { return target_; }       ///< mm
    const MotionLimits& limits() const { return limits_; }
    Phase phase() const { return phase_; }
    bool done() const { return phase_ == Phase::done; }

private:
    double position_ = 0;
    double velocity_ = 0;
    double accel_ = 0;
    double target_ = 0;
    MotionLimits limits_;
    Phase phase_ = Phase::done;
};

}  // namespace jovusim
