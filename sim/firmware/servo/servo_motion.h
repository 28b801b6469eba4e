/// @file
/// The planned course of a move, and the motor that follows it.
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

/// Gains of the control loop. The error is in millimetres; the last three feed the wanted
/// acceleration, speed and direction forward.
struct ServoGains {
    double kp;
    double ki;
    double kd;
    double ka;
    double kv;
    double kf;
};

/// Where the motor should be.
struct ServoDemand {
    double position;      ///< mm
    double velocity;      ///< mm/s
    double acceleration;  ///< mm/s^2
};

/// A motor that drives an axis against friction, with some play between the two. Positions are the
/// axis's, in millimetres. Its numbers stay finite whatever the gains are.
class ServoMotor {
public:
    /// Time goes by; then the control loop reads the axis and sets the PWM.
    /// @param cap most of PWM either way
    void step(const ServoDemand& demand, const ServoGains& gains, double cap, double seconds);

    /// Stops at that position, unpowered.
    void rest_at(double position);

    /// Moves a bit without the loop.
    void creep(double way) { position_ += way; }

    /// Sets the play that the motor has to take up when it turns round, in mm.
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
