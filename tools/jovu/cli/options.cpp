// SPDX-License-Identifier: Apache-2.0
#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <string_view>
#include <tuple>
#include <utility>

#include "jovu/exception.h"

namespace jovu_cli {
namespace {

template <class Number>
std::optional<Number> parse_number(std::string_view digits) {
    Number value{};
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<JovuDeviceAddress> parse_address(const std::string& value) {
    const std::size_t colon = value.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view whole = value;
    const auto bus = parse_number<std::uint8_t>(whole.substr(0, colon));
    const auto address = parse_number<std::uint8_t>(whole.substr(colon + 1));
    if (!bus || !address) {
        return std::nullopt;
    }
    return JovuDeviceAddress{*bus, *address};
}

JovuDeviceFilter CommonOptions::filter() const {
    JovuDeviceFilter filter;
    if (device) {
        filter.add_address(*device);
    }
    if (!serial.empty()) {
        filter.add_serial(serial);
    }
    if (!port.empty()) {
        filter.add_port(port);
    }
    return filter;
}

void choose_device(CommonOptions& options, const std::string& value) {
    options.device = parse_address(value);
    if (!options.device) {
        (is_port(value) ? options.port : options.serial) = value;
    }
}

bool is_port(const std::string& value) {
    try {
        JovuDeviceFilter().add_port(value);
        return true;
    } catch (const JovuException&) {
        return false;
    }
}

std::string to_string(JovuDeviceAddress address) {
    return std::to_string(address.bus) + ":" + std::to_string(address.address);
}

std::string to_string(const std::vector<JovuDeviceAddress>& addresses) {
    std::string list;
    for (const JovuDeviceAddress address : addresses) {
        list += (list.empty() ? "" : ", ") + to_string(address);
    }
    return list;
}

bool comes_before(JovuDeviceAddress one, JovuDeviceAddress other) {
    return std::tie(one.bus, one.address) < std::tie(other.bus, other.address);
}

std::optional<std::chrono::milliseconds> parse_seconds(const std::string& value) {
    const auto seconds = parse_number<double>(value);
    if (!seconds || !(*seconds >= 0 && *seconds <= kMaxSeconds)) {  // NaN fails too.
        return std::nullopt;
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
}

std::optional<float> parse_float(const std::string& value) {
    const auto number = parse_number<float>(value);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

CLI::Option* add_seconds_callback(CLI::App& app, const std::string& names,
                                  std::function<void(std::chrono::milliseconds)> take,
                                  const std::string& description, std::chrono::milliseconds least) {
    const auto check = [take = std::move(take), names, least](const std::string& value) {
        const std::optional<std::chrono::milliseconds> time = parse_seconds(value);
        if (!time) {
            throw CLI::ValidationError("not a time in seconds: " + value);
        }
        if (*time < least) {
            throw CLI::ValidationError(names + " takes at least " + std::to_string(least.count()) +
                                       " ms: " + value);
        }
        take(*time);
    };
    return app.add_option_function<std::string>(names, check, description)->type_name("SECONDS");
}

}  // namespace jovu_cli
