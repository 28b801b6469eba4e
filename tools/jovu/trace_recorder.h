/// @file
/// Keeps the samples of a servo's trace: in files, and in numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "inbox.h"
#include "output.h"
#include "safe_file.h"
#include "trace_plot.h"
#include "trace_statistics.h"

namespace jovu_cli {

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
    std::optional<SafeFile> csv_;
    std::optional<SafeFile> image_;
    std::optional<TracePlot> plot_;
};

/// "12.345", from ticks of the control loop.
std::string tick_text(std::uint64_t ticks);

}  // namespace jovu_cli
