// SPDX-License-Identifier: Apache-2.0

/// @file
/// The controllers that are attached, and the choice of those that this process opens.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jovu/device_address.h"
#include "jovu/export.h"

/// Whether this process has a device open and, if not, why. More values may follow.
enum class JovuDeviceState {
    open,           ///< This process has it open.
    closed,         ///< Closed by close(), until reopen() or until it is plugged in again.
    waiting,        ///< Not tried yet, or no client is registered.
    left_out,       ///< The device filter leaves it out.
    not_permitted,  ///< The system denies access to it.
    in_use,         ///< Another program, or a driver, has its interface.
    vanished,       ///< It was unplugged while it was being opened.
    failed,         ///< It cannot be opened, or cannot receive, for another reason.
    other_kind,     ///< Not of the kind that the library opens.
};

/// @return the name of a state as it stands in the enumeration, such as "in_use"; static.
JOVU_API const char* jovu_state_name(JovuDeviceState state) noexcept;

/// One attached device of the accepted vendor.
struct JovuDeviceInfo {
    JovuDeviceAddress address{};  ///< Where it is on the bus now.
    /// Where it is plugged in: the bus and the ports on the way to it, such as "1-2.3". A device
    /// that is plugged in there anew has the same one.
    std::string port;
    std::int32_t type = 0;  ///< As JovuUsbDevice::type.
    std::string serial;     ///< The serial number; empty when the system does not show it.
    JovuDeviceState state = JovuDeviceState::waiting;  ///< In this process.
};

/// Chooses controllers: all of them, or those that match any of its rules. A value, for one thread
/// at a time.
///
/// Serial numbers are read from the system (on Linux from /sys), since a device that is left out
/// must not be opened. A rule for a serial number matches no device whose number the system does
/// not show.
class JOVU_API JovuDeviceFilter {
public:
    /// Matches every controller.
    JovuDeviceFilter() = default;

    /// Matches no controller, until a rule is added.
    static JovuDeviceFilter none();

    /// Adds a controller by its serial number. With the first rule, a filter stops matching every
    /// controller; this holds for the two below as well.
    /// @throws JovuException for an empty number.
    JovuDeviceFilter& add_serial(const std::string& serial);

    /// Adds the place where a controller is plugged in.
    /// @param port as JovuDeviceInfo::port.
    /// @throws JovuException "Not a port: ..." for anything else.
    JovuDeviceFilter& add_port(const std::string& port);

    /// Adds a controller by its address, which changes when it is plugged in anew.
    JovuDeviceFilter& add_address(JovuDeviceAddress address);

    /// @return true for a filter without a rule that was not made by none().
    bool matches_all() const noexcept { return all_; }

    /// @return whether it has a rule for a serial number.
    bool has_serials() const noexcept { return !serials_.empty(); }

    /// @return whether a device matches; its state has no influence.
    bool matches(const JovuDeviceInfo& device) const;

private:
    bool all_ = true;
    std::vector<std::string> serials_;
    std::vector<std::string> ports_;
    std::vector<JovuDeviceAddress> addresses_;
};
