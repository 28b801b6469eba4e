// SPDX-License-Identifier: Apache-2.0
#include "terminal/format.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace jovu_cli {
namespace {

/// Width of the column of labels.
constexpr std::size_t kLabelWidth = 14;

std::string format_time(const std::tm& parts, const char* pattern,
                        std::chrono::system_clock::time_point time) {
    char buffer[40];
    const std::size_t length = std::strftime(buffer, sizeof buffer, pattern, &parts);
    const auto since_epoch =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    std::snprintf(buffer + length, sizeof buffer - length, ".%03d",
                  static_cast<int>(since_epoch % 1000));
    return buffer;
}

}  // namespace

std::string clock_string(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return format_time(parts, "%H:%M:%S", time);
}

std::string utc_string(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    return format_time(parts, "%Y-%m-%dT%H:%M:%S", time) + "Z";
}

std::string duration_string(std::int64_t seconds) {
    const std::int64_t whole = std::max<std::int64_t>(seconds, 0);
    const std::int64_t hours = whole / 3600;
    const std::int64_t minutes = whole / 60 % 60;
    char buffer[40];
    if (hours > 0) {
        std::snprintf(buffer, sizeof buffer, "%" PRId64 ":%02" PRId64 ":%02" PRId64, hours, minutes,
                      whole % 60);
    } else {
        std::snprintf(buffer, sizeof buffer, "%" PRId64 ":%02" PRId64, minutes, whole % 60);
    }
    return buffer;
}

std::string temperature_string(double celsius) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%.1f C", std::clamp(celsius, -1e9, 1e9));
    return buffer;
}

std::string size_string(double bytes) {
    static constexpr std::array kUnits{"B", "kB", "MB", "GB", "TB"};
    std::size_t unit = 0;
    while (bytes >= 999.95 && unit + 1 < kUnits.size()) {
        bytes /= 1000;
        ++unit;
    }
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return buffer;
}

std::string labelled(const std::string& label, const std::string& value) {
    std::string line = label;
    line.resize(std::max(kLabelWidth, label.size() + 1), ' ');
    return line + value;
}

std::string strip_gcode(const std::string& line) {
    const std::string code = line.substr(0, line.find(';'));
    constexpr const char* kBlanks = " \t\r\n\v\f";
    const std::size_t begin = code.find_first_not_of(kBlanks);
    if (begin == std::string::npos) {
        return {};
    }
    return code.substr(begin, code.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace jovu_cli
