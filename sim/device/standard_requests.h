// SPDX-License-Identifier: Apache-2.0

/// @file
/// The standard requests of a device, and the state that they change.
#pragma once

#include <linux/usb/ch9.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "device/descriptors.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// Carries out standard requests for a function. Not thread-safe: its owner's lock guards it.
class StandardRequests {
public:
    /// The device is configured, as a kernel leaves it. @param function must outlive the object
    StandardRequests(UsbFunction& function, UsbSpeed speed);

    /// Returns the data stage, which is empty for a request without one; nothing for a stall.
    std::optional<std::string> respond(const usb_ctrlrequest& setup);

    /// Selects a configuration, 0 for none, and clears the endpoints. Returns nothing for a stall.
    std::optional<std::string> select_configuration(unsigned value);

    /// Whether a configuration is selected. Without one only endpoint 0 works.
    bool configured() const { return configured_; }

    /// Whether each transfer on that endpoint ends with a stall.
    bool halted(std::uint8_t endpoint) const { return halted_.count(endpoint) != 0; }

    /// Ends the halt of an endpoint.
    void clear_halt(std::uint8_t endpoint) { halted_.erase(endpoint); }

    /// The state of a device that has just been plugged in: no configuration is selected.
    void power_on();

private:
    std::optional<std::string> of_device(const usb_ctrlrequest& setup);
    std::optional<std::string> of_interface(const usb_ctrlrequest& setup);
    std::optional<std::string> of_endpoint(const usb_ctrlrequest& setup);
    UsbFunction& function_;
    const UsbSpeed speed_;
    bool configured_ = true;
    std::set<std::uint8_t> halted_;
};

}  // namespace jovusim
