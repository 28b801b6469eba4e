// SPDX-License-Identifier: Apache-2.0

/// @file
/// The bus of this machine's own kernel.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device/file_descriptor.h"
#include "usbip/usbip_bus.h"

namespace jovusim::usbip {

/// The ports that the kernel's vhci_hcd offers in sysfs.
class VhciPorts {
public:
    /// Directory of the first controller.
    static constexpr char kDirectory[] = "/sys/devices/platform/vhci_hcd.0";

    /// @throws std::runtime_error when the module is not loaded, or this process may not use it
    explicit VhciPorts(std::filesystem::path directory = kDirectory);

    /// The number of the bus with the ports for full and high speed.
    unsigned bus_number() const { return bus_number_; }

    /// The number of those ports.
    unsigned count() const { return count_; }

    /// Whether nothing is attached to a port, which is counted from 1.
    bool is_free(unsigned port) const;

    /// Attaches a device to a port. Returns 0, or the errno with which the kernel refused it.
    /// @param socket   the kernel's end of the connection
    int attach(unsigned port, const UniqueFd& socket, std::uint32_t device, UsbSpeed speed) const;

    /// The address that the kernel has given the device at a port, once it knows it.
    std::optional<BusAddress> address(unsigned port) const;

private:
    struct Port {
        unsigned number;  ///< as the kernel counts them
        bool free;
    };

    std::vector<Port> read_ports() const;

    const std::filesystem::path directory_;
    unsigned bus_number_ = 0;
    unsigned count_ = 0;
};

/// Attaches devices to this machine's bus. The kernel then enumerates them, some tenths of a
/// second after plug() has returned. All are detached when the process ends, however it ends.
class VhciBus final : public UsbipBus {
public:
    /// @throws as VhciPorts
    VhciBus(VhciPorts ports, BusSettings settings);

    void service() override;
    std::optional<Millis> next_due() const override;

private:
    /// A device whose port the kernel still holds for its predecessor.
    struct Waiting {
        Millis next_try;
        Millis deadline;
    };

    unsigned bus_number() const override { return ports_.bus_number(); }
    Port last_port() const override { return ports_.count(); }
    bool usable(Port port) const override { return ports_.is_free(port); }
    void plugged_in(Port port, UsbipDevice& device) override;
    bool host_left(UsbipDevice& device) override;
    std::optional<BusAddress> find_address(Port port) const override {
        return ports_.address(port);
    }
    bool try_to_attach(Port port, UsbipDevice& device);

    const VhciPorts ports_;
    std::map<Port, Waiting> waiting_;
};

}  // namespace jovusim::usbip
