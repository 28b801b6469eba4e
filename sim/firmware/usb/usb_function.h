/// @file
/// What a device does on its endpoints, whatever bus it is attached to.
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

/// What the device says about itself in its descriptors.
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

/// What goes wrong in a firmware update on demand. Kept when the device changes between its
/// application and its boot loader.
struct DfuFaults {
    std::optional<std::uint64_t> write_error;  ///< that block cannot be written
    std::optional<std::uint64_t> unplug_at;    ///< the device leaves the bus at that block
    bool disconnect_at_reset = false;          ///< it does not wait for the reset's end
    bool keep_firmware = false;                ///< what is written is not used
    std::optional<std::string> serial;         ///< the one that it has in DFU mode
};

/// The function behind the endpoints: the controller's application firmware is one, another
/// personality of the same device (with other descriptors) is another.
///
/// No I/O, no clock and no lock of its own: the owner calls one member at a time and hands the time
/// in. Moments never run backwards.
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

    /// The first moment at which next_packet() may give something that it would not give earlier;
    /// nothing when only the host can bring that about.
    virtual std::optional<Millis> next_due() const { return std::nullopt; }

    /// A control request that is not a standard one. @param data of the host, if that sends any
    /// @returns the data for the host, or nothing for a stall
    virtual std::optional<std::string> control(const SetupPacket& /*request*/,
                                               const std::string& /*data*/, Millis /*now*/) {
        return std::nullopt;
    }

    /// The host resets the device.
    virtual void bus_reset(Millis /*now*/) {}

    /// The host selects the device's only configuration, which empties its endpoints.
    virtual void configure() {}

    /// Whether the device leaves the bus by itself now.
    virtual bool disconnect_due(Millis now) const = 0;

    /// What it then comes back as; null when it does not. To be called once.
    virtual std::unique_ptr<UsbFunction> successor() = 0;

    /// Lets time go by: to be called at next_tick(), whether or not the host reads.
    virtual void tick(Millis now) = 0;

    /// When the function next does something that nobody asked for, if ever. May be in the past.
    virtual std::optional<Millis> next_tick() const = 0;

    /// The first program on the host has opened the device.
    virtual void host_opened() {}

    /// The last program on the host has closed the device. Nothing on the bus shows that: what the
    /// device has not sent by then meets the next program.
    virtual void host_closed() {}

    /// Counters as a JSON object.
    virtual Json stats(Millis now) = 0;

    /// Sentences about the host's mistakes since the last call.
    virtual std::vector<std::string> take_violations() = 0;

    /// Whoever changes them holds the model's lock.
    virtual DfuFaults& dfu_faults() = 0;
};

/// The application of a device. Defined with Controller, so that the boot loader can start it.
std::unique_ptr<UsbFunction> make_application(DeviceConfig config);

}  // namespace jovusim
