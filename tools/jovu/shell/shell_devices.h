// SPDX-License-Identifier: Apache-2.0

/// @file
/// The devices to which the lines of a shell may be sent.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "jovu/device_address.h"

namespace jovu_cli {

class Session;

/// Identifies devices by their serial numbers, so that no line is sent to a wrong machine: after a
/// replug another machine can have the same address.
///
/// The accepted devices are those present at the start; after the first line, the device of that
/// line; after choose(), the chosen device. A device without a serial number is identified until it
/// is unplugged. Not thread-safe.
class ShellDevices {
public:
    /// @param chosen the device for lines that name none; nothing for the only connected one.
    /// @param say shows a line to the user.
    ShellDevices(std::optional<JovuDeviceAddress> chosen,
                 std::function<void(const std::string& line)> say);

    /// The device for lines that name none. Follows a machine to its new address.
    std::optional<JovuDeviceAddress> chosen() const { return chosen_; }

    /// Lists the connected devices.
    void list(Session& session);
    /// Lists the devices present at the start and accepts them, or only the chosen one.
    void accept_all(Session& session);
    /// Accepts only this device from now on.
    void choose(Session& session, JovuDeviceAddress address);

    /// Reports the devices that connected and disconnected since the last call. Reads the serial
    /// numbers of new devices to which a line could be sent; blocks until they respond.
    /// @throws Failure interrupted, as do the functions above.
    void update(Session& session);
    /// Prepares for a new session: each device is identified again before a line is sent to it.
    void clear_connections();

    /// @param named whether the line itself names the address.
    /// @throws Failure no_device when the device at the address is not accepted, or as
    ///     Session::exchange() when it cannot be identified.
    void check(Session& session, JovuDeviceAddress address, bool named);

private:
    struct Device {
        JovuDeviceAddress address;
        std::uint64_t
            changes;         ///< NotificationQueue::changes() of its connection; 0 when it is lost.
        std::string serial;  ///< Empty when the device has none or does not respond.
        bool identified = true;  ///< Whether its serial number was requested.
    };
    using Devices = std::vector<Device>;

    static bool same(const Device& one, const Device& other);
    static std::string describe(const Device& device);
    static Device identify(Session& session, JovuDeviceAddress address);
    static std::optional<Device> try_identify(Session& session, JovuDeviceAddress address);

    bool may_be_accepted(Session& session, JovuDeviceAddress address) const;
    bool is_identified(Session& session, JovuDeviceAddress address) const;
    bool is_known(Session& session, JovuDeviceAddress address) const;
    void record(const Device& device);
    void report_connected(const Device& device);
    void drop_disconnected(Session& session, bool all);

    std::optional<JovuDeviceAddress> chosen_;
    std::function<void(const std::string& line)> say_;
    std::unordered_map<JovuDeviceAddress, Device>
        present_;  ///< The devices that were shown to the user.
    std::unordered_map<JovuDeviceAddress, Device>
        owners_;        ///< First devices at their addresses, for lines that name one.
    Devices accepted_;  ///< For all other lines; empty for any device.
};

}  // namespace jovu_cli
