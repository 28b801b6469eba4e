// SPDX-License-Identifier: Apache-2.0

/// @file
/// The planned course of a move, and the motor that follows it.
#pragma once

#include <cstdint>

namespace jovusim {

/// Limits of a move. All greater than 0.
struct MotionLimits {
    double speed = 0;  ///< mm/s
    double accel = 0;  ///< mm/s^2
    double decel = 0;  ///< mm/s^2
};

/// A trapezoidal speed profile, computed step by step: limits and target may change during a move,
/// and the profile continues from its current speed.
class MotionProfile {
public:
    enum class Phase : std::uint8_t { done, accelerating, cruising, decelerating };

    /// Stops at that position.
    void rest_at(double position);

    void go(double target, const MotionLimits& limits);

    /// Slows down to a stop. The position of the stop becomes the target.
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

/// Gains of the control loop. The error is in millimetres; ka, kv and kf feed the demanded
/// acceleration, speed and direction forward.
struct ServoGains {
    double kp;
    double ki;
    double kd;
    double ka;
    double kv;
    double kf;
};

/// The demanded state of the motor.
struct ServoDemand {
    double position;      ///< mm
    double velocity;      ///< mm/s
    double acceleration;  ///< mm/s^2
};

/// A motor that drives an axis against friction, with play between motor and axis. Positions are
/// those of the axis, in millimetres. All values stay finite, whatever the gains are.
class ServoMotor {
public:
    /// Advances the motor; then the control loop reads the axis and sets the PWM.
    /// @param cap limit of the PWM in both directions
    void step(const ServoDemand& demand, const ServoGains& gains, double cap, double seconds);

    /// Stops at that position, unpowered.
    void rest_at(double position);

    /// Moves the axis without the loop.
    void creep(double distance) { position_ += distance; }

    /// Sets the play that the motor takes up when it reverses, in mm.
    void set_play(double play, bool taken_up);

    double position() const { return position_; }
    double velocity() const { return velocity_; }
    double pwm() const { return pwm_; }
    double play_left() const { return play_left_; }  ///< mm still to take up
    bool saturated() const { return saturated_; }

private:
    void turn(double seconds);

    double position_ = 0;
    double velocity_ = 0;
    double pwm_ = 0;
    double integral_ = 0;
    double play_ = 0;
    double play_left_ = 0;
    int direction_ = 0;  ///< in which it has turned last
    bool saturated_ = false;
};

}  // namespace jovusim
