/// @file
/// What dfu-util prints: listings and progress. Short inputs are checked against the regular
/// expressions that the matchers stand for.
#include <cmath>
#include <cstdint>
#include <regex>
#include <string>

#include "dfu/tool_output.h"
#include "require.h"

namespace {

constexpr std::size_t kPiece = 127;       ///< What the library reads at once.
constexpr std::size_t kRegexLimit = 400;  ///< std::regex recurses.

std::size_t listed_by_regex(const std::string& text) {
    static const std::regex line(
        R"(Found\s+DFU:\s+\[[a-zA-Z0-9]+:[a-zA-Z0-9]+\].*serial="[a-zA-Z0-9]+".*\n)");
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), line), {}));
}

std::size_t percentages_by_regex(const std::string& text) {
    static const std::regex number(R"(\s[0-9]+%\s)");
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), number), {}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    const auto devices = jovu::listed_devices(text);
    for (const auto& device : devices)
        REQUIRE(!device.vendor_id.empty() && !device.product_id.empty() && !device.serial.empty());
    if (size < kRegexLimit) REQUIRE(devices.size() == listed_by_regex(text));
    for (std::size_t at = 0; at < size; at += kPiece) {
        const std::string piece = text.substr(at, kPiece);
        const auto numbers = jovu::percentages(piece);
        REQUIRE(numbers.size() == percentages_by_regex(piece));
        for (const double number : numbers)
            REQUIRE(number >= 0 && std::isfinite(number));
    }
    return 0;
}
