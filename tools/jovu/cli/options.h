// SPDX-License-Identifier: Apache-2.0

/// @file
/// Values of options: device addresses, times and numbers, read and written.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "jovu/device_address.h"
#include "jovu/devices.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace jovu_cli {

/// The longest time that an option accepts, in seconds: a week.
constexpr int kMaxSeconds = 7 * 24 * 60 * 60;

/// The options of devices behind a message broker.
struct FleetOptions {
    std::string url;  ///< Of the broker, with the topic prefix as its path. Empty: local devices.
    std::string user;
    std::string password_file;
    std::string ca_file;  ///< Empty: the certificates that the system trusts.
    std::string certificate_file;
    std::string key_file;
    bool plain_text = false;  ///< Without TLS also to a broker on another machine.
    bool all = false;         ///< Every device.
    std::string request_id;   ///< Empty: a new one.
};

/// The options of every command; they may stand before or after its name.
struct CommonOptions {
    /// @name The chosen device: by one of these or none of them.
    /// @{
    std::optional<JovuDeviceAddress> device;
    std::string serial;
    std::string port;  ///< As JovuDeviceInfo::port.
    /// @}
    /// With `fleet`: patterns of the chosen devices' serial numbers.
    std::vector<std::string> serials;
    FleetOptions fleet;
    /// How long to wait for a device to appear; without a value, only for attached devices.
    std::optional<std::chrono::milliseconds> wait_device;
    /// How long to wait for a response; without a value, as long as the library does.
    std::optional<std::chrono::milliseconds> timeout;
    bool json = false;
    bool verbose = false;  ///< Show the library's diagnostic lines.
    bool quiet = false;    ///< Show no progress.

    bool chooses_device() const { return device || !serial.empty() || !port.empty(); }
    /// @return a filter for the chosen device; for every device when none is chosen.
    JovuDeviceFilter filter() const;
};

/// Chooses a device by the value of the environment variable JOVU_DEVICE: an address, a port or a
/// serial number.
void choose_device(CommonOptions& options, const std::string& value);

/// Reads "BUS:ADDR", two decimal numbers 0 to 255; leading zeros are allowed, as in `lsusb`.
/// @return nothing for any other string.
std::optional<JovuDeviceAddress> parse_address(const std::string& value);

/// @return whether this is where a device can be plugged in, such as "1-2.3".
bool is_port(const std::string& value);

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
