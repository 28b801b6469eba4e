// SPDX-License-Identifier: Apache-2.0
#include "device/types.h"

#include <charconv>

namespace jovusim {

namespace {

/// Parses the whole string as a number from 1 to kMaxBusAddress.
std::optional<std::uint8_t> parse_part(const std::string& digits) {
    int value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || stop != end || value < 1 || value > kMaxBusAddress) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(value);
}

}  // namespace

std::optional<BusAddress> parse_address(const std::string& word) {
    const std::size_t colon = word.find(':');
    if (colon == std::string::npos) return std::nullopt;
    const auto bus = parse_part(word.substr(0, colon));
    const auto address = parse_part(word.substr(colon + 1));
    if (!bus || !address) return std::nullopt;
    return BusAddress{*bus, *address};
}

}  // namespace jovusim
