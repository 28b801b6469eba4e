/// @file
/// The devices that the lines of a shell may go to.
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

/// Knows devices by their serial numbers, so that a line goes to the machine that its author has in
/// mind: an address says where a machine is plugged in, and the next one there can be another.
///
/// Lines may go to the device that the last line went to, before the first one to those that were
/// there at the start, and to none but the one that choose() has chosen. A device without a serial
/// number is known until it is unplugged. Not thread-safe.
class ShellDevices {
public:
    /// @param chosen the device for lines that name none; nothing for the only one that there is.
    /// @param say shows a line to the user.
    ShellDevices(std::optional<JovuDeviceAddress> chosen,
                 std::function<void(const std::string& line)> say);

    /// The device for lines that name none. Follows a machine to its next address.
    std::optional<JovuDeviceAddress> chosen() const { return chosen_; }

    /// Says which devices are there.
    void list(Session& session);
    /// Says which devices are there at the start: lines may go to any of them, or to the chosen
    /// one.
    void accept_all(Session& session);
    /// Lines go to this device from now on.
    void choose(Session& session, JovuDeviceAddress address);

    /// Says what has connected and disconnected since the last call. Asks new devices for their
    /// serial numbers, which takes as long as they do; but not while no line can go to them.
    /// @throws Failure interrupted, as do the functions above.
    void update(Session& session);
    /// Another session comes: devices are asked again who they are before lines go to them.
    void clear_connections();

    /// @param named whether the line itself names the address.
    /// @throws Failure no_device when the line must not go to the device that is at the address, or
    ///     as Session::exchange() when the device does not say which it is.
    void check(Session& session, JovuDeviceAddress address, bool named);

private:
    struct Device {
        JovuDeviceAddress address;
        std::uint64_t
            changes;         ///< NotificationQueue::changes() of its connection; 0 for a lost one.
        std::string serial;  ///< Empty when the device has none or does not answer.
        bool asked = true;   ///< Whether it was asked for its serial number.
    };
    using Devices = std::vector<Device>;

    static bool same(const Device& one, const Device& other);
    static std::string text(const Device& device);
    static Device ask(Session& session, JovuDeviceAddress address);
    static std::optional<Device> ask_whether(Session& session, JovuDeviceAddress address);

    bool may_be_wanted(Session& session, JovuDeviceAddress address) const;
    bool is_asked(Session& session, JovuDeviceAddress address) const;
    bool is_known(Session& session, JovuDeviceAddress address) const;
    void note(const Device& device);
    void announce(const Device& device);
    void drop_disconnected(Session& session, bool all);

    std::optional<JovuDeviceAddress> chosen_;
    std::function<void(const std::string& line)> say_;
    std::unordered_map<JovuDeviceAddress, Device> present_;  ///< What the user has been shown.
    std::unordered_map<JovuDeviceAddress, Device> owners_;   ///< For lines that name an address.
    Devices accepted_;                                       ///< For all others; empty for any.
};

}  // namespace jovu_cli
