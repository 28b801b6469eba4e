// SPDX-License-Identifier: Apache-2.0
#include "progress/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cli/failure.h"
#include "terminal/format.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kRateWindow = 3s;
constexpr auto kRedrawInterval = 100ms;
/// Widths of a bar, in characters.
constexpr std::size_t kMinBar = 10;
constexpr std::size_t kMaxBar = 40;

std::string percent_string(double percent) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%5.1f %%", std::clamp(percent, 0.0, 100.0));
    return buffer;
}

}  // namespace

bool Tenths::reached(double percent) {
    const int tenth = static_cast<int>(std::floor(percent / 10));
    if (tenth <= last_) {
        return false;
    }
    last_ = tenth;
    return true;
}

void RateMeter::add(Clock::time_point now, std::uint64_t done) {
    samples_.push_back({now, done});
    while (samples_.size() > 2 && now - samples_[1].time > kRateWindow) {
        samples_.pop_front();
    }
}

double RateMeter::rate() const {
    if (samples_.size() < 2) {
        return 0;
    }
    const std::chrono::duration<double> time = samples_.back().time - samples_.front().time;
    const auto bytes = static_cast<double>(samples_.back().done - samples_.front().done);
    return time.count() > 0 ? bytes / time.count() : 0;
}

std::string transfer_string(double rate, std::uint64_t done, std::uint64_t size) {
    std::string line = size_string(static_cast<double>(done)) + ", " + size_string(rate) + "/s";
    if (rate > 0 && done < size) {
        const double left = static_cast<double>(size - done) / rate;
        line += ", " + duration_string(std::llround(left)) + " left";
    }
    return line;
}

std::string bar_string(double percent, const std::string& label, const std::string& tail,
                       unsigned columns) {
    const std::string front = label + " " + percent_string(percent);
    const std::string back = tail.empty() ? "" : "  " + tail;
    const std::size_t used = character_count(front) + character_count(back) + std::size(" []") - 1;
    if (columns < used + kMinBar) {
        return fit(front + back, columns);
    }
    const std::size_t width = std::min<std::size_t>(columns - used, kMaxBar);
    const auto full = static_cast<std::size_t>(
        std::floor(std::clamp(percent, 0.0, 100.0) / 100.0 * static_cast<double>(width)));
    std::string bar = std::string(full, '=') + '>';
    bar.resize(width, ' ');  // A full bar has no tip.
    return front + " [" + bar + "]" + back;
}

ProgressBar::ProgressBar(Output& out) : out_(out) {}

ProgressBar::~ProgressBar() {
    try {
        finish();
    } catch (const Failure&) {
        // The output is closed; draw() and the other writers report that.
    }
}

void ProgressBar::draw(double percent, const std::string& label, const std::string& tail,
                       bool always) {
    const auto now = std::chrono::steady_clock::now();
    if (!always && drawn_ && now - *drawn_ < kRedrawInterval) {
        return;
    }
    // One column stays free: a full line would put the cursor on the next one.
    const std::string bar =
        bar_string(percent, printable(label), printable(tail), out_.columns() - 1);
    out_.raw("\r\x1b[2K" + bar);
    drawn_ = now;
}

void ProgressBar::finish() {
    if (drawn_) {
        drawn_.reset();
        out_.raw("\n");
    }
}

}  // namespace jovu_cli
