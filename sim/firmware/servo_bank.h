/// @file
/// All servos of the machine and the interrupt that runs them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "firmware/servo.h"

namespace jovusim {

/// X, Y, Z and the extruder, by the numbers of their names.
enum Axis : std::uint8_t { kX, kY, kZ, kE };
constexpr std::size_t kAxisCount = 4;

/// Where the axes end, in mm; the extruder's has no end.
constexpr std::array<double, kAxisCount> kTravel = {200, 200, 180, 0};

class ServoBank {
public:
    /// The servo of that number, or null.
    Servo* find(std::int64_t number);

    Servo& operator[](std::size_t axis) { return servos_[axis]; }

    void start_waiting_moves();

    /// Runs the interrupt that many times. @param samples of the servos that are traced; may be
    /// null
    void advance(std::uint64_t milliseconds, std::vector<TraceSample>* samples);

    bool traced() const;

    /// Power-on: all at 0, with the usual configuration. The interrupts are counted on.
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
