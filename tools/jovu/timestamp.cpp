#include "timestamp.h"

#include <cstdio>
#include <ctime>

namespace jovu_cli {
namespace {

std::string format(const std::tm& parts, const char* pattern,
                   std::chrono::system_clock::time_point time) {
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, pattern, &parts);
    const auto since_epoch =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    std::snprintf(text + length, sizeof text - length, ".%03d",
                  static_cast<int>(since_epoch % 1000));
    return text;
}

}  // namespace

std::string clock_text(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return format(parts, "%H:%M:%S", time);
}

std::string utc_text(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    return format(parts, "%Y-%m-%dT%H:%M:%S", time) + "Z";
}

}  // namespace jovu_cli
