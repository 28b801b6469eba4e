// SPDX-License-Identifier: Apache-2.0

/// @file
/// Points in time, durations, temperatures and sizes as strings, labelled lines, and gcode without
/// its comment.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace jovu_cli {

/// @return "12:34:56.789", local time.
std::string clock_string(std::chrono::system_clock::time_point time);

/// @return "2024-05-06T12:34:56.789Z", UTC.
std::string utc_string(std::chrono::system_clock::time_point time);

/// @return "1:02:03", or "2:03" below an hour.
std::string duration_string(std::int64_t seconds);

/// @return "215.5 C".
std::string temperature_string(double celsius);

/// @return "1.5 MB", with powers of 1000.
std::string size_string(double bytes);

/// @return a line of a block: the label, padded to the width of the column, and the value.
std::string labelled(const std::string& label, const std::string& value);

/// @return the part of a line that is sent: without the comment (from ";" on) and surrounding
///     blanks.
std::string strip_gcode(const std::string& line);

}  // namespace jovu_cli
