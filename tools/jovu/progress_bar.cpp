#include "progress_bar.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "failure.h"
#include "printable.h"
#include "report_text.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

constexpr auto rate_window = 3s;
constexpr auto redraw_interval = 100ms;
constexpr std::size_t smallest_bar = 10;
constexpr std::size_t largest_bar = 40;

std::string percent_text(double percent) {
    char text[16];
    std::snprintf(text, sizeof text, "%5.1f %%", std::clamp(percent, 0.0, 100.0));
    return text;
}

}  // namespace

void RateMeter::add(Clock::time_point now, std::uint64_t done) {
    samples_.push_back({now, done});
    while (samples_.size() > 2 && now - samples_[1].time > rate_window) {
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

std::string size_text(double bytes) {
    static constexpr std::array units{"B", "kB", "MB", "GB", "TB"};
    std::size_t unit = 0;
    while (bytes >= 999.95 && unit + 1 < units.size()) {
        bytes /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

std::string transfer_text(double rate, std::uint64_t done, std::uint64_t size) {
    std::string text = size_text(static_cast<double>(done)) + ", " + size_text(rate) + "/s";
    if (rate > 0 && done < size) {
        const double left = static_cast<double>(size - done) / rate;
        text += ", " + duration_text(std::llround(left)) + " left";
    }
    return text;
}

std::string bar_text(double percent, const std::string& label, const std::string& tail,
                     unsigned columns) {
    const std::string front = label + " " + percent_text(percent);
    const std::string back = tail.empty() ? "" : "  " + tail;
    const std::size_t used = character_count(front) + character_count(back) + std::size(" []") - 1;
    if (columns < used + smallest_bar) {
        return fit(front + back, columns);
    }
    const std::size_t width = std::min<std::size_t>(columns - used, largest_bar);
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
        // The output is gone; whoever drew the bar has been told or is being told.
    }
}

void ProgressBar::draw(double percent, const std::string& label, const std::string& tail,
                       bool always) {
    const auto now = std::chrono::steady_clock::now();
    if (!always && drawn_ && now - *drawn_ < redraw_interval) {
        return;
    }
    // One column stays free: a full line would leave the cursor on the next one.
    const std::string bar =
        bar_text(percent, printable(label), printable(tail), out_.columns() - 1);
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
