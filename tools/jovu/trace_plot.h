/// @file
/// Draws a trace of a servo, by the program gnuplot.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "jovu/firmware_types.h"
#include "trace_statistics.h"

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

}  // namespace jovu_cli
