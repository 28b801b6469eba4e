/// @file
/// A bar that shows how far something has come, with its rate and the time left.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "output.h"

namespace jovu_cli {

/// How fast bytes go, over the last few seconds.
class RateMeter {
public:
    using Clock = std::chrono::steady_clock;

    /// @param done bytes that have gone in all.
    void add(Clock::time_point now, std::uint64_t done);

    /// Bytes per second; 0 before there is anything to go by.
    double rate() const;

private:
    struct Sample {
        Clock::time_point time;
        std::uint64_t done;
    };
    std::deque<Sample> samples_;
};

/// "1.5 MB", with powers of 1000.
std::string size_text(double bytes);

/// "1.5 MB, 500.0 kB/s, 0:03 left", without the time left when there is none to tell.
/// @param rate bytes per second.
std::string transfer_text(double rate, std::uint64_t done, std::uint64_t size);

/// "  45.3 %  [=====>      ]  label", with @p tail behind it, exactly @p columns wide where there
/// is room for it; the bar is left out of a line that is too narrow for one.
std::string bar_text(double percent, const std::string& label, const std::string& tail,
                     unsigned columns);

/// Draws bars over one another on a terminal. The last one stays.
class ProgressBar {
public:
    /// @param out must be one that redraws().
    explicit ProgressBar(Output& out);
    /// Ends the line of the last bar.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Draws a bar, unless the last one was drawn only a moment ago.
    /// @param always draw it in any case.
    void draw(double percent, const std::string& label, const std::string& tail, bool always);

    /// Ends the line: the next bar is drawn on a line of its own.
    void finish();

private:
    Output& out_;
    std::optional<std::chrono::steady_clock::time_point> drawn_;
};

}  // namespace jovu_cli
