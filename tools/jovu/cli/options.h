/// @file
/// Values of options: device addresses, times and numbers, read and written.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "jovu/device_address.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace jovu_cli {

/// The longest time that an option accepts, in seconds: a week.
constexpr int kMaxSeconds = 7 * 24 * 60 * 60;

/// The options of every command; they may stand before or after its name.
struct CommonOptions {
    std::optional<JovuDeviceAddress> device;
    /// How long to wait for a device to appear; without a value, only for attached devices.
    std::optional<std::chrono::milliseconds> wait_device;
    /// How long to wait for a response; without a value, as long as the library does.
    std::optional<std::chrono::milliseconds> timeout;
    bool json = false;
    bool verbose = false;  ///< Show the library's diagnostic lines.
    bool quiet = false;    ///< Show no progress.
};

/// Reads "BUS:ADDR", two decimal numbers 0 to 255; leading zeros are allowed, as in `lsusb`.
/// @return nothing for any other string.
std::optional<JovuDeviceAddress> parse_address(const std::string& value);

/// @return "BUS:ADDR".
std::string to_string(JovuDeviceAddress address);

/// @return the addresses, separated by ", ".
std::string to_string(const std::vector<JovuDeviceAddress>& addresses);

/// The order of addresses in a list: by bus, then by address.
bool comes_before(JovuDeviceAddress one, JovuDeviceAddress other);

/// Reads a time in seconds, with or without a fraction, from 0 to kMaxSeconds.
/// @return nothing for any other string.
std::optional<std::chrono::milliseconds> parse_seconds(const std::string& value);

/// Reads a finite number in the range of float.
/// @return nothing for any other string.
std::optional<float> parse_float(const std::string& value);

/// Adds an option that takes a time in seconds.
/// @param take receives the value.
/// @param least the shortest time that is accepted.
CLI::Option* add_seconds_callback(CLI::App& app, const std::string& names,
                                  std::function<void(std::chrono::milliseconds)> take,
                                  const std::string& description, std::chrono::milliseconds least);

/// As above.
/// @param target receives the value; must live as long as the parser.
template <class Target>
CLI::Option* add_seconds_option(CLI::App& app, const std::string& names, Target& target,
                                const std::string& description,
                                std::chrono::milliseconds least = {}) {
    return add_seconds_callback(
        app, names, [&target](std::chrono::milliseconds time) { target = time; }, description,
        least);
}

}  // namespace jovu_cli
