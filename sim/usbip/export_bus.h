// SPDX-License-Identifier: Apache-2.0

/// @file
/// A bus whose devices other machines can import.
#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <string>

#include "device/file_descriptor.h"
#include "usbip/stream.h"
#include "usbip/usbip_bus.h"

namespace jovusim::usbip {

/// Exports devices over TCP to any USB/IP client, such as "usbip attach". A device has one host at
/// a time. It stays exported when its host leaves, and when it restarts; the client then has to
/// import it again.
class ExportBus final : public UsbipBus {
public:
    /// Clients that have not imported a device yet; others wait until one of these has gone.
    static constexpr std::size_t kMostClients = 64;

    /// How long a client may take for its request and for reading the response.
    static constexpr Millis kRequestTime = 10'000;

    /// @param listen ADDRESS:PORT, where the address is a number or a name, in brackets for IPv6
    /// @throws std::runtime_error
    ExportBus(const std::string& listen, BusSettings settings);

    /// The address at which it listens, with the real port.
    std::string address() const;

    void service() override;
    std::optional<Millis> next_due() const override;
    void add_to(std::vector<pollfd>& waits) const override;
    void serve(const std::vector<pollfd>& waits) override;

private:
    /// A connection without a device.
    struct Client {
        Stream stream;
        Millis deadline;
        bool answered = false;  ///< it is closed when the response has been sent
    };

    static constexpr unsigned kBus = 1;
    static constexpr Port kPorts = 100;

    unsigned bus_number() const override { return kBus; }
    Port last_port() const override { return kPorts; }
    bool usable(Port /*port*/) const override { return true; }
    void plugged_in(Port /*port*/, UsbipDevice& /*device*/) override {}
    bool host_left(UsbipDevice& device) override;
    std::optional<BusAddress> find_address(Port port) const override;

    bool accepting() const { return clients_.size() < kMostClients && !pause_until_; }
    void accept_all();
    bool serve(Client& client, short events);
    bool carry_out(Client& client);
    std::string list() const;
    bool import_device(Client& client, const std::string& bus_id);

    UniqueFd listener_;
    std::list<Client> clients_;
    std::optional<Millis> pause_until_;  ///< before it accepts again when descriptors have run out
};

}  // namespace jovusim::usbip
