// SPDX-License-Identifier: Apache-2.0

/// @file
/// Records a servo's trace: statistics, a CSV file, and a drawing by gnuplot.
#pragma once

#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "jovu/firmware_types.h"
#include "posix/files.h"
#include "terminal/output.h"

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

/// Collects the samples of a trace and draws them at the end.
class TracePlot {
public:
    /// The lines above the drawing; printable.
    struct Title {
        std::string heading;
        std::string details;
    };

    /// @throws Failure failure without gnuplot; file_problem when a temporary file cannot be
    /// created.
    TracePlot();

    /// Adds a sample.
    /// @param ticks its time since the first sample.
    /// @param follows whether there is no gap before it.
    /// @throws Failure file_problem.
    void add(const servo_trace_msg& sample, std::uint64_t ticks, bool follows);

    /// Draws the samples as PNG.
    /// @param output the descriptor for the image.
    /// @throws Failure failure when gnuplot fails; file_problem.
    void draw(const Title& title, int output);

private:
    struct Close {
        // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner.
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };

    std::string script(const Title& title) const;

    std::string gnuplot_;
    std::unique_ptr<std::FILE, Close> data_;
    std::uint64_t samples_ = 0;
    std::uint64_t last_ticks_ = 0;
    Range position_;
    Range error_;
    Range pwm_;
};

/// Records the samples of one servo in statistics and in files.
class TraceRecorder {
public:
    /// Opens the files and finds gnuplot, so that these errors occur before the recording.
    /// @param csv, plot paths; empty for none.
    /// @throws Failure.
    TraceRecorder(std::int16_t servo, const std::string& csv, const std::string& plot);

    /// Adds a sample; ignores those of other servos.
    /// @throws Failure file_problem.
    void add(const servo_trace_msg& sample);

    /// Counts samples that arrived but were dropped, as this program was too slow.
    void add_lost(std::size_t count) { lost_ += count; }

    /// Completes the files.
    /// @param title of the drawing.
    /// @throws Failure.
    void finish(const TracePlot::Title& title);

    const TraceStatistics& statistics() const noexcept { return statistics_; }
    std::size_t lost() const noexcept { return lost_; }

    /// @return the path of the samples of an unfinished recording; empty for none.
    std::string unfinished_path() const;

private:
    const std::int16_t servo_;
    TraceStatistics statistics_;
    std::size_t lost_ = 0;
    std::optional<AtomicFile> csv_;
    std::optional<AtomicFile> image_;
    std::optional<TracePlot> plot_;
};

}  // namespace jovu_cli
