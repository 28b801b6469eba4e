// SPDX-License-Identifier: Apache-2.0

/// @file
/// The DC servo axes: moves, position, trace samples.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "firmware/base/types.h"
#include "firmware/servo/servo_motion.h"

namespace jovusim {

/// What a servo is doing, as in a trace.
enum class ServoState : std::uint8_t {
    idle = 0,
    accelerating = 1,
    cruising = 2,
    decelerating = 3,
    settling = 4,  ///< the profile has ended, the axis has not arrived
    waiting = 5,   ///< for the start of all synchronous moves
    stalled = 6,   ///< gave up with its PWM at the cap
};

/// What commanding a move returns.
enum class MoveResult : std::uint8_t {
    ok = 0,
    no_servo = 1,
    bad_value = 2,     ///< unknown type, a speed or an acceleration that is not above 0
    out_of_range = 3,  ///< beyond the travel, faster than the configuration allows
    busy = 4,          ///< a commanded move is running
};

/// What modifying a move returns.
enum class ModifyResult : std::uint8_t {
    ok = 0,
    no_servo = 1,
    not_moving = 2,
    bad_value = 3,
    too_late = 4,  ///< the validation position has been passed
};

enum class MoveDirection : std::uint8_t { stationary = 0, positive = 1, negative = 2 };

/// "move_type" of a move.
enum MoveType : std::uint32_t {
    kMoveAbsolute = 0,  ///< to the target
    kMoveRelative = 1,  ///< by the distance
    kMoveTypeCount,
};

/// "type" of a modifier.
enum ModifierType : std::uint32_t {
    kModifySpeeds = 0,  ///< speed, acceleration and deceleration; 0 leaves one as it is
    kModifyTarget = 1,  ///< these and the target
    kModifyStop = 2,    ///< slow down to a stop
    kModifierTypeCount,
};

/// A servo's configuration. The loop always runs at 1 kHz, and some members are stored without
/// effect.
struct ServoConfig {
    std::uint16_t interrupt_frequency = 1000;
    ServoGains gains{280, 6000, 1.5, 0.03125, 1.875, 12};
    std::int32_t pwm_cap = 1000;
    std::uint32_t pwm_cap_time = 500;  ///< ms at the cap until it counts as stalled
    std::uint32_t units = 0;
    double units_per_mm = 200;  ///< native units
    double velocity_resolution = 0.125;
    double speed_max = 300;   ///< mm/s
    double accel_max = 8000;  ///< mm/s^2
    std::uint32_t move_dist_min_static = 1;
    std::uint32_t move_dist_min_dynamic = 1;
    std::uint32_t trace = 0;
};

/// A commanded move, in client units.
struct MoveOrder {
    std::uint32_t type = kMoveAbsolute;
    bool start_sync = false;
    double target = 0;
    double distance = 0;
    MotionLimits limits{50, 1000, 1000};
    std::uint32_t max_cycles = 0;  ///< loop runs until it is stopped; 0 = no limit
    std::uint32_t metric_skip = 0;
    bool ignore_stalls = false;
    bool slaved = false;  ///< the distance is multiplied by the ratio
    double slave_ratio = 1;
};

struct MoveModifier {
    std::uint32_t type = kModifySpeeds;
    double position = 0;
    MotionLimits limits;
    std::optional<double> validation_position;
};

/// Following error of the last commanded move, in client units: mean and sum of squared deviations.
struct MoveMetrics {
    std::int32_t n = 0;
    double mean = 0;
    double m2 = 0;
};

/// One sample of a trace, in native units.
struct TraceSample {
    int servo;
    ServoState state;
    std::uint32_t count;
    std::int32_t commanded;
    std::int32_t position;
    std::int32_t pwm;
    std::int32_t padout;  ///< play still to take up
};

/// One axis. Client units are millimetres, native units are encoder counts.
///
/// An idle axis whose trace is enabled moves back and forth about its position until a move is
/// commanded or the trace is disabled; in the latter case it returns to that position.
class Servo {
public:
    /// @param travel        the axis moves from 0 to travel, in mm; 0 = no limit
    /// @param units_per_mm  native units in a millimetre
    Servo(std::string name, double travel, double units_per_mm);

    const std::string& name() const { return name_; }
    const ServoConfig& config() const { return config_; }
    /// Returns false, and changes nothing, when a value is invalid.
    bool configure(const ServoConfig& config);

    MoveResult move(const MoveOrder& order);
    /// Moves to a position at that speed or at the maximum of the configuration, whichever is less.
    void drive_to(double position, double speed);
    void start_waiting_move();
    ModifyResult check(const MoveModifier& modifier) const;
    /// @param validate false: the validation position is ignored
    ModifyResult modify(const MoveModifier& modifier, bool validate);
    /// Stops at the current position, unpowered.
    void put_idle();
    /// Sets the current position without moving; ends a move.
    void set_position(double client);
    /// @param flush true: the play has already been taken up
    void set_backlash(int native, bool flush);
    void set_trace(bool on);

    bool active() const { return task_ != Task::none; }
    bool traced() const { return traced_; }
    double position() const { return motor_.position(); }  ///< mm
    double target() const;                                 ///< mm
    MoveDirection direction() const;
    ServoState state() const;
    const MoveMetrics& metrics() const { return metrics_; }
    bool in_travel(double position) const;

    std::int32_t to_native(double client) const;
    double to_client(double native) const { return native / config_.units_per_mm; }

    /// One run of the control loop, a millisecond.
    void step();
    TraceSample sample(int number, std::uint32_t count) const;
    Json stats() const;

private:
    enum class Task : std::uint8_t {
        none,
        move,    ///< commanded
        tune,    ///< back and forth while it is traced
        go_back  ///< to the position before that
    };

    /// The position or target, the tuning cycle disregarded.
    double home() const;
    void begin(const MoveOrder& order);
    void begin_tuning_leg();
    void measure();
    void settle();
    void finish();

    std::string name_;
    double travel_;
    ServoConfig config_;
    MotionProfile profile_;
    ServoMotor motor_;
    Task task_ = Task::none;
    std::optional<MoveOrder> waiting_;
    MoveOrder order_;
    MoveMetrics metrics_;
    bool traced_ = false;
    bool stalled_ = false;
    bool outbound_ = false;    ///< the leg of the tuning cycle
    double home_ = 0;          ///< position at which the tuning cycle began
    std::uint32_t pause_ = 0;  ///< ms until the next leg
    std::uint32_t cycles_ = 0;
    std::uint32_t settling_ = 0;
    std::uint32_t capped_ = 0;
};

/// X, Y, Z and the extruder, by the numbers of their names.
enum Axis : std::uint8_t { kX, kY, kZ, kE };
constexpr std::size_t kAxisCount = 4;

/// Travel of the axes in mm; the extruder has no limit.
constexpr std::array<double, kAxisCount> kTravel = {200, 200, 180, 0};

class ServoBank {
public:
    /// The servo of that number, or null.
    Servo* find(std::int64_t number);

    Servo& operator[](std::size_t axis) { return servos_[axis]; }

    void start_waiting_moves();

    /// Runs the loop once for each millisecond. @param samples of traced servos; may be null
    void advance(std::uint64_t milliseconds, std::vector<TraceSample>* samples);

    /// How many servos are traced.
    std::size_t traced() const;

    /// Power-on: all at 0, with the default configuration. The interrupt count continues.
    void reset();

    Json stats() const;

private:
    bool idle() const;

    std::array<Servo, kAxisCount> servos_ = {
        Servo("X", kTravel[kX], 200), Servo("Y", kTravel[kY], 200), Servo("Z", kTravel[kZ], 800),
        Servo("E", kTravel[kE], 160)};
    std::uint32_t count_ = 0;  ///< interrupts so far
};

}  // namespace jovusim
