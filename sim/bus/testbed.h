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

#include "bus/sim_device.h"
#include "bus/uevents.h"
#include "bus/usbfs_node.h"
#include "device/capture.h"
#include "device/file_descriptor.h"
#include "device/types.h"

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

/// A bus for programs that run with umockdev's library preloaded and kTestbedVariable set to
/// root(). Changes that variable and TMPDIR in the environment of this process.
///
/// Main thread only. The thread must have blocked the signals that it handles before it constructs
/// a Testbed, because umockdev starts a worker thread.
class Testbed final : public Bus {
public:
    /// Removes the directories of killed simulators and makes a bus without devices.
    /// @param time_scale seconds of machine time in one real second
    /// @param wake called on any thread when service() has to be called; must not block
    /// @param capture gets everything on the bus; may be null, outlives the testbed
    /// @throws std::runtime_error, std::system_error
    Testbed(double time_scale, std::function<void()> wake, BusCapture* capture = nullptr);
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;
    ~Testbed() override;

    /// The directory of the testbed, removed with the bus.
    const std::string& root() const { return root_; }

    /// @name Names of devices are their addresses; the next free one is that of a hub on bus 1.
    /// @{
    std::string plug(const std::optional<std::string>& name, const PlugRequest& request) override;
    void unplug(const std::string& name) override;
    std::shared_ptr<BusDevice> at(const std::string& name) override;
    std::vector<std::shared_ptr<BusDevice>> devices() const override;
    bool can_inject(BusFault /*fault*/) const override { return true; }
    /// Opening the node fails with EISDIR.
    void block_open(const std::string& name, bool blocked) override;
    void service() override;
    std::optional<Millis> next_due() const override;
    void add_to(std::vector<pollfd>& /*waits*/) const override {}
    void serve(const std::vector<pollfd>& /*waits*/) override {}
    /// @}

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
    bool is_taken(const std::string& serial) const;
    std::shared_ptr<SimDevice> at(BusAddress address) const;
    void unplug(BusAddress address);
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
