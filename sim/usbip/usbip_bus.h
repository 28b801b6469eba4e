// SPDX-License-Identifier: Apache-2.0

/// @file
/// What the two buses of USB/IP share.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/bus.h"
#include "device/capture.h"
#include "usbip/usbip_device.h"

namespace jovusim::usbip {

/// The settings of all devices of a bus.
struct BusSettings {
    double time_scale = 1.0;  ///< seconds of machine time in one real second
    UsbSpeed speed = UsbSpeed::full;
    BusCapture* capture = nullptr;  ///< gets everything on the bus; outlives it
};

/// A bus whose devices are named by their ports: "1-2" is port 2 of bus 1. A device that restarts
/// returns at its port. Requests may also name a device by the address that its host has given it.
class UsbipBus : public Bus {
public:
    explicit UsbipBus(BusSettings settings) : settings_(settings) {}

    std::string plug(const std::optional<std::string>& name, const PlugRequest& request) override;
    void unplug(const std::string& name) override;
    std::shared_ptr<BusDevice> at(const std::string& name) override;
    std::vector<std::shared_ptr<BusDevice>> devices() const override;
    bool can_inject(BusFault fault) const override;
    void block_open(const std::string& name, bool blocked) override;
    void service() override;
    std::optional<Millis> next_due() const override;
    void add_to(std::vector<pollfd>& waits) const override;
    void serve(const std::vector<pollfd>& waits) override;

    /// Whether every device that is plugged in has been configured by a host.
    bool all_configured() const;

protected:
    using Port = unsigned;

    virtual unsigned bus_number() const = 0;

    /// The number of the last port; the first one is 1.
    virtual Port last_port() const = 0;

    /// Whether a device can be plugged in at that port, as far as others use it too.
    virtual bool usable(Port port) const = 0;

    /// A device is being plugged in or returns.
    /// @throws std::runtime_error when it cannot
    virtual void plugged_in(Port port, UsbipDevice& device) = 0;

    /// The host has ended the connection of a device. @returns whether the device stays
    virtual bool host_left(UsbipDevice& device) = 0;

    /// The address that a host has given the device at a port, if that is known.
    virtual std::optional<BusAddress> find_address(Port port) const = 0;

    /// "1-2"
    std::string name_of(Port port) const;

    std::shared_ptr<UsbipDevice> find(const std::string& name) const;
    std::shared_ptr<UsbipDevice> find(Port port) const;

    void remove(Port port) { devices_.erase(port); }

private:
    /// A device that is off the bus while it changes between its application and its boot loader.
    struct Returning {
        Millis due;
        std::unique_ptr<UsbFunction> function;
    };

    Port free_port() const;
    Port parse_port(const std::string& name) const;
    bool is_taken(const std::string& serial) const;
    void attach(Port port, std::unique_ptr<UsbFunction> function);
    void attach_returned(Millis now);

    const BusSettings settings_;
    std::map<Port, std::shared_ptr<UsbipDevice>> devices_;
    std::map<Port, Returning> returning_;
};

/// The events that poll() has found for a descriptor.
short events_of(const std::vector<pollfd>& waits, int fd);

}  // namespace jovusim::usbip
