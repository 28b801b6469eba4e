// SPDX-License-Identifier: Apache-2.0

/// @file
/// What requests need of a bus and of the devices on it.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/fault_table.h"
#include "firmware/usb/controller.h"
#include "firmware/usb/dfu_device.h"

namespace jovusim {

/// A device that is plugged in. Main thread.
class BusDevice {
public:
    virtual ~BusDevice() = default;

    /// The name of its place on the bus, by which requests name it: "1:2" or "1-1".
    virtual std::string name() const = 0;

    /// The address that a host has given the device, as " address=1:2"; empty on a bus whose names
    /// are addresses.
    virtual std::string address_attribute() const = 0;

    virtual const UsbIdentity& identity() const = 0;

    /// Runs work on the function with the device's lock held, then transfers the packets that are
    /// due.
    virtual void with_function(const std::function<void(UsbFunction&, Millis)>& work) = 0;

    /// Runs work on the fault table with the device's lock held.
    virtual void with_faults(const std::function<void(FaultTable&)>& work) = 0;

    /// Programs that have the device open, as far as the bus shows them.
    virtual std::size_t open_clients() = 0;

    virtual Json stats() = 0;

    /// As with_function(). @throws std::runtime_error when the device does not run its application
    void with_controller(const std::function<void(Controller&, Millis)>& work);

protected:
    BusDevice() = default;
    BusDevice(const BusDevice&) = default;
    BusDevice& operator=(const BusDevice&) = default;
};

/// A device to plug in.
struct PlugRequest {
    std::uint16_t product = kApplicationProduct;  ///< kDfuProduct: a device in DFU mode
    std::uint16_t vendor = kVendorId;
    std::string serial = {};  ///< empty: made from its place on the bus
    std::string dfu_name = DeviceConfig{}.dfu_name;
};

/// A bus with simulated devices. Main thread.
class Bus {
public:
    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    virtual ~Bus() = default;

    /// Plugs a device in and returns its name.
    /// @param name of its place; nothing: a free one
    /// @throws std::runtime_error when the place is taken or does not exist
    virtual std::string plug(const std::optional<std::string>& name,
                             const PlugRequest& request) = 0;

    /// Unplugs a device. @throws as at()
    virtual void unplug(const std::string& name) = 0;

    /// Returns the device of that name. @throws std::runtime_error when there is none
    virtual std::shared_ptr<BusDevice> at(const std::string& name) = 0;

    /// In the order of their places.
    virtual std::vector<std::shared_ptr<BusDevice>> devices() const = 0;

    /// Whether the fault can happen on this bus.
    virtual bool can_inject(BusFault fault) const = 0;

    /// Makes opening a device fail, or succeed again.
    /// @throws std::runtime_error when the bus cannot make it fail
    virtual void block_open(const std::string& name, bool blocked) = 0;

    /// Advances all devices, removes those that disconnected themselves and attaches those that
    /// return.
    virtual void service() = 0;

    /// When service() has to be called next, if ever.
    virtual std::optional<Millis> next_due() const = 0;

    /// @name The bus's own input
    /// @{
    /// Adds the descriptors that the bus polls.
    virtual void add_to(std::vector<pollfd>& waits) const = 0;

    /// Serves the descriptors that poll() has found ready.
    virtual void serve(const std::vector<pollfd>& waits) = 0;
    /// @}

    /// Unplugs a device and plugs a new one in at the same place.
    void replug(const std::string& name);
};

/// How long a device is off the bus when it starts another firmware.
constexpr Millis kRestartTime = 200;

/// Makes the function of a device that is plugged in.
/// @param serial if the request has none
std::unique_ptr<UsbFunction> make_function(const PlugRequest& request, const std::string& serial,
                                           double time_scale);

/// A default serial number: "JVS", the number of the bus and that of the place on it in three
/// digits each. A suffix makes it unique.
std::string free_serial(unsigned bus, unsigned place,
                        const std::function<bool(const std::string&)>& taken);

}  // namespace jovusim
