// SPDX-License-Identifier: Apache-2.0

/// @file
/// Addresses and time on the simulated bus.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <tuple>

#include "firmware/base/types.h"

namespace jovusim {

/// The largest bus number and device address, as on a real bus.
constexpr int kMaxBusAddress = 127;

/// Bus number and device address, both 1 to kMaxBusAddress.
struct BusAddress {
    std::uint8_t bus = 1;
    std::uint8_t address = 0;

    bool operator<(const BusAddress& other) const {
        return std::tie(bus, address) < std::tie(other.bus, other.address);
    }

    /// "1:2"
    std::string to_string() const { return std::to_string(bus) + ":" + std::to_string(address); }

    /// "/dev/bus/usb/001/002"
    std::string node() const {
        char path[32];
        std::snprintf(path, sizeof path, "/dev/bus/usb/%03u/%03u", unsigned{bus},
                      unsigned{address});
        return path;
    }

    /// "/devices/usb1/1-2": the port has the number of the address.
    std::string device_path() const {
        return "/devices/usb" + std::to_string(bus) + "/" + std::to_string(bus) + "-" +
               std::to_string(address);
    }
};

/// Parses "1:2"; nothing when it is not a valid address.
std::optional<BusAddress> parse_address(const std::string& word);

/// Milliseconds of the monotonic clock. Any thread.
inline Millis now_ms() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace jovusim
