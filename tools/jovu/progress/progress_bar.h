// SPDX-License-Identifier: Apache-2.0

/// @file
/// Progress on a terminal: a bar with the rate and the remaining time.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "terminal/output.h"

namespace jovu_cli {

/// Selects the steps of a progress that are written as a line: the first one in each tenth.
class Tenths {
public:
    /// @return whether @p percent is in a higher tenth than all before it.
    bool reached(double percent);

private:
    int last_ = -1;
};

/// Measures the rate of a transfer over the last three seconds.
class RateMeter {
public:
    using Clock = std::chrono::steady_clock;

    /// @param done bytes transferred so far.
    void add(Clock::time_point now, std::uint64_t done);

    /// @return bytes per second; 0 with fewer than two values.
    double rate() const;

private:
    struct Sample {
        Clock::time_point time;
        std::uint64_t done;
    };
    std::deque<Sample> samples_;
};

/// @return "1.5 MB, 500.0 kB/s, 0:03 left", without the remaining time when it is unknown or 0.
/// @param rate bytes per second.
std::string transfer_string(double rate, std::uint64_t done, std::uint64_t size);

/// @return "label  45.3 % [=====>      ]  tail", at most @p columns wide; without the bar when the
///     line is too narrow for one.
std::string bar_string(double percent, const std::string& label, const std::string& tail,
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

    /// Draws a bar, unless the last one was drawn less than 100 ms ago.
    /// @param always draw it in any case.
    void draw(double percent, const std::string& label, const std::string& tail, bool always);

    /// Ends the line: the next bar is drawn on a new line.
    void finish();

private:
    Output& out_;
    std::optional<std::chrono::steady_clock::time_point> drawn_;
};

}  // namespace jovu_cli
