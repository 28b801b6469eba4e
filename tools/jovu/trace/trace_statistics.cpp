#include "trace/trace_statistics.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace jovu_cli {

void Range::add(std::int64_t value) {
    lowest = std::min(lowest, value);
    highest = std::max(highest, value);
}

std::int64_t following_error(const servo_trace_msg& sample) {
    return std::int64_t{sample.pos_cmd} - sample.pos;
}

bool TraceStatistics::add(const servo_trace_msg& sample) {
    const bool follows = samples_ == 0 || advance(sample.int_cnt);
    last_count_ = sample.int_cnt;
    ++samples_;
    position_.add(sample.pos);
    pwm_.add(sample.pwm);
    const std::int64_t error = following_error(sample);
    if (std::abs(error) > std::abs(largest_error_)) {
        largest_error_ = error;
        largest_error_ticks_ = ticks_;
    }
    return follows;
}

bool TraceStatistics::advance(std::uint32_t count) {
    // The count wraps. A step of more than half its range, 24 days, is a step back.
    const std::uint32_t step = count - last_count_;
    if (step == 0 || step > std::numeric_limits<std::uint32_t>::max() / 2) {
        ++restarts_;
        ++ticks_;
        return false;
    }
    ticks_ += step;
    if (step == 1) {
        return true;
    }
    ++gaps_;
    missing_ += step - 1;
    return false;
}

std::string tick_string(std::uint64_t ticks) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%" PRIu64 ".%03u", ticks / kTraceRate,
                  static_cast<unsigned>(ticks % kTraceRate * 1000 / kTraceRate));
    return buffer;
}

}  // namespace jovu_cli
