/// @file
/// Draws a trace of a servo, by the program gnuplot.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "jovu/firmware_types.h"
#include "posix/files.h"
#include "terminal/output.h"
#include "trace/trace_statistics.h"

namespace jovu_cli {

/// Collects the samples of a trace and draws them at the end.
class TracePlot {
public:
    /// What stands above the drawing; printable.
    struct Title {
        std::string text;
        std::string details;
    };

    /// @throws Failure failure when there is no gnuplot; file_problem when there is no room for
    ///     temporary files.
    TracePlot();

    /// Takes a sample.
    /// @param ticks its time since the first one.
    /// @param follows whether there is no gap before it.
    /// @throws Failure file_problem.
    void add(const servo_trace_msg& sample, std::uint64_t ticks, bool follows);

    /// Draws what has been taken, as PNG.
    /// @param output a descriptor for the image.
    /// @throws Failure failure when gnuplot does not succeed; file_problem.
    void draw(const Title& title, int output);

private:
    struct Close {
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

/// Takes the samples of one servo and makes of them what was asked for.
class TraceRecorder {
public:
    /// Opens the files and looks for gnuplot, so that a recording does not turn out to be in vain.
    /// @param csv, plot paths; empty for none.
    /// @throws Failure.
    TraceRecorder(std::int16_t servo, const std::string& csv, const std::string& plot);

    /// Takes a sample; those of other servos are left out.
    /// @throws Failure file_problem.
    void add(const servo_trace_msg& sample);

    /// Notes that samples were lost in this program, which took them too slowly.
    void add_lost(std::size_t count) { lost_ += count; }

    /// Completes the files.
    /// @param title of the drawing.
    /// @throws Failure.
    void finish(const TracePlot::Title& title);

    const TraceStatistics& statistics() const noexcept { return statistics_; }
    std::size_t lost() const noexcept { return lost_; }

    /// Where the samples of an unfinished recording are; empty when nowhere.
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
