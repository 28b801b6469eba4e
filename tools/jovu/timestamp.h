/// @file
/// Points in time as text.
#pragma once

#include <chrono>
#include <string>

namespace jovu_cli {

/// "12:34:56.789", local time, for people.
std::string clock_text(std::chrono::system_clock::time_point time);

/// "2024-05-06T12:34:56.789Z", UTC, for programs.
std::string utc_text(std::chrono::system_clock::time_point time);

}  // namespace jovu_cli
