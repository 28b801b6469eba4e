// SPDX-License-Identifier: Apache-2.0

/// @file
/// The simulated bus and its directory.
#pragma once

#include <umockdev.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/capture.h"
#include "bus/file_descriptor.h"
#include "bus/sim_device.h"
#include "bus/types.h"
#include "bus/uevents.h"
#include "bus/usbfs_node.h"

namespace jovusim {

/// Marks a testbed's directory as in use with a locked file. The kernel releases the lock when the
/// process ends.
class DirectoryOwnership {
public:
    /// @throws std::system_error
    explicit DirectoryOwnership(const std::string& directory);

private:
    UniqueFd lock_;
};

/// Removes the testbeds of killed simulators under a directory for temporary files. Testbeds of
/// other programs, other users and running simulators stay.
void remove_stale_testbeds(const std::string& temporary);

/// The environment variable with the directory of the testbed.
constexpr char kTestbedVariable[] = "UMOCKDEV_DIR";

/// A device to plug in.
struct PlugRequest {
    std::uint16_t product = kApplicationProduct;  ///< kDfuProduct: a device in DFU mode
    std::uint16_t vendor = kVendorId;
    std::string serial = {};  ///< empty: made from the address
    std::string dfu_name = DeviceConfig{}.dfu_name;
};

/// A bus for programs that run with umockdev's library preloaded and kTestbedVariable set to
/// root(). Changes that variable and TMPDIR in the environment of this process.
///
/// Main thread only. The thread must have blocked the signals that it handles before it constructs
/// a Testbed, because umockdev starts a worker thread.
class Testbed {
public:
    /// Removes the directories of killed simulators and makes a bus without devices.
    /// @param time_scale seconds of machine time in one real second
    /// @param wake called on any thread when service() has to be called; must not block
    /// @param capture gets everything on the bus; may be null, outlives the testbed
    /// @throws std::runtime_error, std::system_error
    Testbed(double time_scale, std::function<void()> wake, BusCapture* capture = nullptr);
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;
    ~Testbed();

    /// The directory of the testbed, removed with the bus.
    const std::string& root() const { return root_; }

    /// Plugs a device in.
    /// @param address nothing: the next free one on bus 1, as a hub assigns it
    /// @throws std::runtime_error when the address is taken
    BusAddress plug(std::optional<BusAddress> address, const PlugRequest& request);

    /// Unplugs a device. @throws std::out_of_range when there is none at that address
    void unplug(BusAddress address);

    /// Unplugs a device and plugs a new one in at the same address.
    void replug(BusAddress address);

    /// @throws std::out_of_range when there is none at that address
    std::shared_ptr<SimDevice> at(BusAddress address);

    /// In order of their addresses.
    std::vector<std::shared_ptr<SimDevice>> devices() const;

    /// Makes opening the node fail with EISDIR, or succeed again. @throws as at()
    void block_open(BusAddress address, bool blocked);

    /// Advances all devices, removes those that disconnected themselves and attaches those that
    /// return.
    void service();

    /// When service() has to be called next, if ever.
    std::optional<Millis> next_due() const;

private:
    struct TestbedDeleter {
        void operator()(UMockdevTestbed* testbed) const { g_object_unref(testbed); }
    };

    /// A device that is off the bus while it changes between its application and its boot loader.
    struct Returning {
        Millis due;
        std::uint8_t bus;
        std::unique_ptr<UsbFunction> function;
    };

    BusAddress free_address(std::uint8_t bus);
    std::string free_serial(BusAddress address) const;
    void attach(BusAddress address, std::unique_ptr<UsbFunction> function);
    void attach_returned(Millis now);
    void make_node(const SimDevice& device);
    void remove_node(BusAddress address);
    void remove_device(BusAddress address);

    const double time_scale_;
    const std::function<void()> wake_;
    BusCapture* const capture_;
    std::optional<DirectoryOwnership> ownership_;  // outlives testbed_
    std::unique_ptr<UMockdevTestbed, TestbedDeleter> testbed_;
    std::string root_;
    std::optional<ListenerSockets> listeners_;
    std::optional<UeventSender> uevents_;
    std::map<BusAddress, std::unique_ptr<UsbfsNode>> nodes_;
    std::map<BusAddress, std::shared_ptr<SimDevice>> devices_;
    std::vector<Returning> returning_;
    std::map<std::uint8_t, std::uint8_t> last_addresses_;  // by bus
};

}  // namespace jovusim
