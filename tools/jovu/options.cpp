#include "options.h"

#include <charconv>
#include <cmath>
#include <string_view>
#include <tuple>

namespace jovu_cli {
namespace {

template <class Number>
std::optional<Number> parse_number(std::string_view text) {
    Number value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<JovuDeviceAddress> parse_address(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view whole = text;
    const auto bus = parse_number<std::uint8_t>(whole.substr(0, colon));
    const auto address = parse_number<std::uint8_t>(whole.substr(colon + 1));
    if (!bus || !address) {
        return std::nullopt;
    }
    return JovuDeviceAddress{*bus, *address};
}

std::string to_string(JovuDeviceAddress address) {
    return std::to_string(address.bus) + ":" + std::to_string(address.address);
}

std::string to_string(const std::vector<JovuDeviceAddress>& addresses) {
    std::string text;
    for (const JovuDeviceAddress address : addresses) {
        text += (text.empty() ? "" : ", ") + to_string(address);
    }
    return text;
}

bool comes_before(JovuDeviceAddress one, JovuDeviceAddress other) {
    return std::tie(one.bus, one.address) < std::tie(other.bus, other.address);
}

std::optional<std::chrono::milliseconds> parse_seconds(const std::string& text) {
    const auto seconds = parse_number<double>(text);
    if (!seconds || !(*seconds >= 0 && *seconds <= max_seconds)) {  // Not a number fails as well.
        return std::nullopt;
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
}

std::optional<float> parse_float(const std::string& text) {
    const auto value = parse_number<float>(text);
    return value && std::isfinite(*value) ? value : std::nullopt;
}

}  // namespace jovu_cli
