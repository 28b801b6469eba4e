// SPDX-License-Identifier: Apache-2.0

/// @file
/// Clocks, counters of the process and medians.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <ctime>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

/// What the whole process, all of its threads, has used since this object was made.
class Meter {
public:
    double ms() const { return milliseconds(Clock::now() - begin_); }
    double cpu_us() const { return cpu_now() - cpu_; }
    /// Context switches, those of the scheduler's own choice included.
    double switches() const { return switches_now() - switches_; }

private:
    static double cpu_now() {
        timespec time{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
    }
    static double switches_now() {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
    }

    const Clock::time_point begin_ = Clock::now();
    const double cpu_ = cpu_now();
    const double switches_ = switches_now();
};

/// @param part 0.5 for the median, 1 for the largest. @return NaN if there is no value.
inline double quantile(std::vector<double> values, double part) {
    if (values.empty()) return std::nan("");
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(part * static_cast<double>(values.size()));
    return values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

inline double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

}  // namespace bench
