// SPDX-License-Identifier: Apache-2.0

/// @file
/// The Wi-Fi module and the networks around it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "firmware/base/types.h"

namespace jovusim {

/// Results of Wi-Fi commands.
enum class WifiResult : int {
    ok = 0,
    no_interface = -1,   ///< no such interface, or the command is not for it
    stopped = -2,        ///< the interface has not been started
    no_network = -3,     ///< no network of that name is in reach
    wrong_key = -4,      ///< the network does not accept the key
    bad_value = -5,      ///< a string too long, an unknown "cmd"
    not_connected = -6,  ///< nothing to disconnect from
};

/// Numbers of the interfaces.
enum class WifiInterface : std::uint8_t { client = 0, access_point = 1 };
constexpr std::size_t kWifiInterfaces = 2;

/// Settings of the client that apply at power-on.
struct WifiSettings {
    bool auto_start = false;
    bool auto_connect = false;
    std::string ssid;
    std::string key;
    std::int32_t timeout = 10000;  ///< ms
};

/// A network in reach.
struct WifiNetwork {
    const char* ssid;
    const char* key;  ///< empty for an open one
    int encryption;   ///< 0 open, 1 WEP, 2 WPA, 3 WPA2
    int strength;     ///< dBm
};

/// The Wi-Fi module. A connection succeeds or fails at once.
class Wifi {
public:
    /// @param serial of the device, from which the MAC address is made
    explicit Wifi(const std::string& serial);

    WifiResult start(WifiInterface interface);
    WifiResult stop(WifiInterface interface);
    WifiResult connect(const std::string& ssid, const std::string& key);
    WifiResult disconnect();

    /// Returns the number of networks found, or why the scan failed.
    std::variant<std::size_t, WifiResult> scan();

    /// A network that the last scan found, or null.
    const WifiNetwork* found(std::size_t index) const;

    WifiSettings& settings() { return settings_; }
    void save_settings() { saved_ = settings_; }

    /// Power-on: applies the saved settings.
    void reset();

    bool connected() const { return network_ != nullptr; }

    /// @name Structures in wire form
    /// @{
    Json status() const;
    Json configuration() const;
    /// @}
    Json stats() const;

private:
    bool& started(WifiInterface interface) { return started_[static_cast<std::size_t>(interface)]; }
    Json address() const;
    Json mac() const;

    std::array<std::uint8_t, 6> mac_{};
    std::array<bool, kWifiInterfaces> started_{};
    const WifiNetwork* network_ = nullptr;
    std::size_t found_ = 0;
    WifiSettings settings_;
    WifiSettings saved_;
};

}  // namespace jovusim
