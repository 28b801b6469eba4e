// SPDX-License-Identifier: Apache-2.0

/// @file
/// A simulated device that a kernel imports over USB/IP.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "device/bus.h"
#include "device/device_core.h"
#include "device/types.h"
#include "usbip/protocol.h"
#include "usbip/stream.h"

namespace jovusim::usbip {

/// A device, and the connection to the kernel that has imported it. Main thread.
///
/// No open or close of the device node is visible here: the first IN transfer tells that a program
/// has come, and the cancellation of the last one that it has left.
class UsbipDevice final : public BusDevice {
public:
    /// Limits of the transfers in flight of a host. Beyond them a transfer ends with ENOMEM.
    static constexpr std::size_t kMostTransfers = 1024;
    static constexpr std::size_t kMostBytes = std::size_t{32} << 20U;

    /// Largest transfer, in bytes: what the kernel allows a program by default. A larger one ends
    /// the connection.
    static constexpr std::size_t kLongestTransfer = std::size_t{16} << 20U;

    /// @param name     of its place, such as "1-1"
    /// @param address  by which it is exported and captured
    /// @param find_address returns the address that its host has given it, if that is known
    /// @param listener sees every transfer; may be empty
    UsbipDevice(std::string name, BusAddress address, UsbSpeed speed,
                std::unique_ptr<UsbFunction> function,
                std::function<std::optional<BusAddress>()> find_address, UrbListener listener);

    std::string name() const override { return name_; }
    std::string address_attribute() const override;
    const UsbIdentity& identity() const override { return core_.function().identity(); }
    void with_function(const std::function<void(UsbFunction&, Millis)>& work) override;
    void with_faults(const std::function<void(FaultTable&)>& work) override;
    std::size_t open_clients() override { return host_reads_ ? 1 : 0; }
    Json stats() override;

    std::optional<BusAddress> host_address() const { return find_address_(); }

    /// How a host that imports it sees it.
    ExportedDevice exported() const { return {name_, address_, speed_, identity()}; }

    /// @name The connection
    /// @{
    /// Begins to serve a host; there is no other one.
    void connect(Stream stream);
    /// Ends it, which is an unplug for the host.
    void disconnect();
    bool connected() const { return stream_.has_value(); }
    /// Whether the host has ended it, or it has failed.
    bool host_gone() const { return stream_ && stream_->ended(); }
    /// Whether the host has selected the configuration.
    bool configured() const { return core_.engine().configured(); }

    int fd() const { return stream_ ? stream_->fd() : -1; }
    short events() const { return stream_ ? stream_->events() : short{0}; }
    void serve(short events);
    /// @}

    void tick();
    std::optional<Millis> next_due() const;

    /// Whether the device has left its bus: by a fault, or for a restart.
    bool unplugged() const { return unplugged_; }

    /// As DeviceCore.
    std::unique_ptr<UsbFunction> take_successor() { return core_.take_successor(); }

private:
    void carry_out_commands();
    void submit(const Command& command, const char* data);
    void unlink(const Command& command);
    void watch_for_reset(const Urb& urb, Millis now);
    void respond(const Urb& urb);
    void respond_to_finished();
    void update_state(Millis now);
    void forget(const Urb& urb);
    void fail(const std::string& reason);

    struct Counters {
        std::uint64_t connections = 0;
        std::uint64_t submits = 0;
        std::uint64_t unlinks = 0;
        std::uint64_t late_unlinks = 0;  ///< of transfers that had ended already
        std::uint64_t refused = 0;       ///< transfers beyond the limits
        std::uint64_t resets = 0;
    };

    const std::string name_;
    const BusAddress address_;
    const UsbSpeed speed_;
    const std::function<std::optional<BusAddress>()> find_address_;
    DeviceCore core_;
    std::optional<Stream> stream_;
    std::unordered_map<std::uint32_t, std::size_t> in_flight_;  ///< sizes by sequence number
    std::size_t bytes_in_flight_ = 0;
    std::size_t reads_in_flight_ = 0;  ///< bulk IN transfers
    bool host_reads_ = false;
    bool descriptor_read_ = false;  ///< of the device, since a configuration was selected
    bool unplugged_ = false;
    Counters counters_;
};

}  // namespace jovusim::usbip
