// SPDX-License-Identifier: Apache-2.0

/// @file
/// The USB function of a device, independent of the bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "firmware/base/types.h"

namespace jovusim {

/// The vendor id of the controllers, in DFU mode too.
constexpr std::uint16_t kVendorId = 0x7A1C;

/// One bulk endpoint. Bit 7 of the address is set for IN.
struct EndpointInfo {
    std::uint8_t address;
    std::uint16_t max_packet;
};

/// One interface with its only alternate setting.
struct InterfaceInfo {
    std::uint8_t interface_class;
    std::uint8_t subclass;
    std::uint8_t protocol;
    std::vector<EndpointInfo> endpoints;
    std::string name = {};   ///< empty for none
    std::string extra = {};  ///< descriptors of its class
};

/// The contents of the descriptors.
struct UsbIdentity {
    std::uint16_t vendor;
    std::uint16_t product;
    std::uint16_t release;  ///< binary coded decimal
    std::string manufacturer;
    std::string product_name;
    std::string serial;
    std::vector<InterfaceInfo> interfaces;
};

/// The setup packet of a control transfer.
struct SetupPacket {
    std::uint8_t type;  ///< bmRequestType
    std::uint8_t request;
    std::uint16_t value;
    std::uint16_t index;
    std::uint16_t length;
};

/// What stays the same when a device changes between its application and its boot loader.
struct DeviceConfig {
    std::string serial;
    std::uint16_t product;  ///< of the application
    double time_scale;
    std::string version = "1.0.0";  ///< of the firmware that it has
    std::uint16_t vendor = kVendorId;
    std::string dfu_name = "Firmware";  ///< of its alternate setting in DFU mode
};

/// Faults injected into a firmware update. Application and boot loader share them.
struct DfuFaults {
    std::optional<std::uint64_t> write_error;  ///< that block cannot be written
    std::optional<std::uint64_t> unplug_at;    ///< the device disconnects at that block
    bool disconnect_at_reset = false;          ///< the device disconnects during the reset
    bool keep_firmware = false;                ///< the written image is ignored
    std::optional<std::string> serial;         ///< serial number in DFU mode
};

/// The function behind the endpoints: the application or the boot loader.
///
/// It has no I/O, clock or lock: the owner calls one member at a time and passes the time in, which
/// never decreases.
class UsbFunction {
public:
    UsbFunction() = default;
    UsbFunction(const UsbFunction&) = delete;
    UsbFunction& operator=(const UsbFunction&) = delete;
    virtual ~UsbFunction() = default;

    /// Constant for the life of the object.
    virtual const UsbIdentity& identity() const = 0;

    /// The product id under which the device runs its application.
    virtual std::uint16_t application_product() const = 0;

    /// Bytes from the host on an OUT endpoint.
    virtual void receive(std::uint8_t /*endpoint*/, const std::uint8_t* /*data*/,
                         std::size_t /*size*/, Millis /*now*/) {}

    /// The next packet for an IN endpoint, if there is one at that moment.
    virtual std::optional<std::string> next_packet(std::uint8_t /*endpoint*/, Millis /*now*/) {
        return std::nullopt;
    }

    /// The first moment at which next_packet() may return another packet without further input;
    /// nothing when it needs input.
    virtual std::optional<Millis> next_due() const { return std::nullopt; }

    /// Handles a control request that is not a standard one. @param data from the host, if any
    /// @returns the data for the host, or nothing for a stall
    virtual std::optional<std::string> control(const SetupPacket& /*request*/,
                                               const std::string& /*data*/, Millis /*now*/) {
        return std::nullopt;
    }

    /// The host resets the device.
    virtual void bus_reset(Millis /*now*/) {}

    /// The host selects the only configuration, which clears the endpoints.
    virtual void configure() {}

    /// Whether the device disconnects itself now.
    virtual bool disconnect_due(Millis now) const = 0;

    /// The function with which it then returns; null when it does not. Call it once.
    virtual std::unique_ptr<UsbFunction> successor() = 0;

    /// Advances the time. Call it at next_tick(), whether or not the host reads.
    virtual void tick(Millis now) = 0;

    /// When the function next does something without a request, if ever. May be in the past.
    virtual std::optional<Millis> next_tick() const = 0;

    /// The first program on the host has opened the device.
    virtual void host_opened(Millis /*now*/) {}

    /// The last program on the host has closed the device. The bus does not show that: unsent
    /// output other than samples remains for the next program.
    virtual void host_closed() {}

    /// Counters as a JSON object.
    virtual Json stats(Millis now) = 0;

    /// Protocol violations since the last call.
    virtual std::vector<std::string> take_violations() = 0;

    /// Faults of firmware updates. The owner holds its lock while it changes them.
    virtual DfuFaults& dfu_faults() = 0;
};

/// The application of a device. Defined with Controller, so that the boot loader can start it.
std::unique_ptr<UsbFunction> make_application(DeviceConfig config);

}  // namespace jovusim
