/// @file
/// Records a servo's trace: statistics, a CSV file, and a drawing by gnuplot.
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
