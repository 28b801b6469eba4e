/// @file
/// The values of the options that every command shares, and how they are written.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "jovu/device_address.h"

namespace jovu_cli {

/// What stands in front of, or behind, every command.
struct CommonOptions {
    std::optional<JovuDeviceAddress> device;
    /// How long to wait for a device to appear; without a value, only for what is attached.
    std::optional<std::chrono::milliseconds> wait_device;
    bool json = false;
};

/// Reads "BUS:ADDR", two decimal numbers 0..255; leading zeros are allowed, as in `lsusb`.
/// @return nothing for any other text.
std::optional<JovuDeviceAddress> parse_address(const std::string& text);

/// @return "BUS:ADDR".
std::string to_string(JovuDeviceAddress address);

/// @return the addresses, separated by ", ".
std::string to_string(const std::vector<JovuDeviceAddress>& addresses);

/// Whether an address comes first in a list.
bool comes_before(JovuDeviceAddress one, JovuDeviceAddress other);

/// Reads a time in seconds, with or without a fraction, from 0 to max_seconds.
/// @return nothing for any other text.
std::optional<std::chrono::milliseconds> parse_seconds(const std::string& text);

/// Reads a number that is neither infinite nor out of a float's range.
/// @return nothing for any other text.
std::optional<float> parse_float(const std::string& text);

/// A week: the longest time that an option takes.
constexpr int max_seconds = 7 * 24 * 60 * 60;

}  // namespace jovu_cli
