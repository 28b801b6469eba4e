/// @file
/// The statistics of a servo's trace, updated with each sample.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "jovu/firmware_types.h"

namespace jovu_cli {

/// Rate of the control loop and of the samples, in Hz.
constexpr std::uint32_t kTraceRate = 1000;

/// The smallest and the largest value so far.
struct Range {
    std::int64_t lowest = std::numeric_limits<std::int64_t>::max();
    std::int64_t highest = std::numeric_limits<std::int64_t>::min();

    void add(std::int64_t value);
};

/// The statistics of one servo's samples, in the order of their arrival.
class TraceStatistics {
public:
    /// Adds the next sample.
    /// @return whether it follows the sample before without a gap; true for the first.
    bool add(const servo_trace_msg& sample);

    std::uint64_t samples() const noexcept { return samples_; }
    /// Missing samples, by the interrupt counts, and the number of gaps that they leave.
    std::uint64_t missing() const noexcept { return missing_; }
    std::uint64_t gaps() const noexcept { return gaps_; }
    /// How often the interrupt count decreased or repeated, as when the device restarts it. The
    /// time continues from there.
    std::uint64_t restarts() const noexcept { return restarts_; }

    /// Time of the last sample since the first one, in ticks of the control loop.
    std::uint64_t ticks() const noexcept { return ticks_; }

    const Range& position() const noexcept { return position_; }
    const Range& pwm() const noexcept { return pwm_; }
    /// The following error of the largest magnitude, commanded less actual position, and its time.
    std::int64_t largest_error() const noexcept { return largest_error_; }
    std::uint64_t largest_error_ticks() const noexcept { return largest_error_ticks_; }

private:
    bool advance(std::uint32_t count);

    std::uint64_t samples_ = 0;
    std::uint64_t missing_ = 0;
    std::uint64_t gaps_ = 0;
    std::uint64_t restarts_ = 0;
    std::uint64_t ticks_ = 0;
    std::uint32_t last_count_ = 0;
    Range position_;
    Range pwm_;
    std::int64_t largest_error_ = 0;
    std::uint64_t largest_error_ticks_ = 0;
};

/// @return seconds as "12.345", from ticks of the control loop.
std::string tick_string(std::uint64_t ticks);

/// Commanded less actual position.
std::int64_t following_error(const servo_trace_msg& sample);

}  // namespace jovu_cli
