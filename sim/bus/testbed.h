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

#include "bus/enumeration.h"
#include "bus/file_descriptor.h"
#include "bus/sim_device.h"
#include "bus/types.h"
#include "bus/usbfs_node.h"

namespace jovusim {

/// Marks a testbed's directory as this process's for as long as it runs: a locked file in it. The
/// lock goes with the process, however it ends.
class DirectoryOwnership {
public:
    /// @throws std::system_error
    explicit DirectoryOwnership(const std::string& directory);

private:
    UniqueFd lock_;
};

/// Removes the testbeds under a directory for temporary files that simulators of this kind have
/// left behind without cleaning up. Others' testbeds, and those of simulators that run, stay.
void remove_stale_testbeds(const std::string& temporary);

/// Tells programs where their testbed is.
constexpr char kTestbedVariable[] = "UMOCKDEV_DIR";

/// What is to be plugged in.
struct PlugRequest {
    std::uint16_t product = kApplicationProduct;  ///< kDfuProduct: a device in DFU mode
    std::uint16_t vendor = kVendorId;
    std::string serial = {};  ///< empty: made from the address
    std::string dfu_name = DeviceConfig{}.dfu_name;
};

/// A bus on which devices come and go, for programs that run with the testbed's library preloaded
/// and kTestbedVariable set to root(). Changes that and TMPDIR in this process's environment.
///
/// All members are for the main thread, which must have blocked the signals that it wants to handle
/// itself: the testbed starts a worker thread.
class Testbed {
public:
    /// Removes what killed simulators left behind and makes a bus without devices.
    /// @param time_scale machine seconds in a second for all devices
    /// @param wake called on any thread when service() has something to do; must not block
    /// @throws std::runtime_error, std::system_error
    Testbed(double time_scale, std::function<void()> wake);
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;
    ~Testbed();

    /// The directory that lives as long as the bus.
    const std::string& root() const { return root_; }

    /// Plugs a device in.
    /// @param address nothing: the next one on bus 1 that has not been in use for longest
    /// @throws std::runtime_error when the address is taken
    BusAddress plug(std::optional<BusAddress> address, const PlugRequest& request);

    /// Takes a device off the bus. @throws std::out_of_range for an unknown one.
    void unplug(BusAddress address);

    /// Unplugs a device and plugs it in again at the same address, at once.
    void replug(BusAddress address);

    /// @throws std::out_of_range for an unknown one
    std::shared_ptr<SimDevice> at(BusAddress address);

    /// In order of their addresses.
    std::vector<std::shared_ptr<SimDevice>> devices() const;

    /// Makes opening the node fail with EISDIR, or lets it succeed again. @throws as at()
    void block_open(BusAddress address, bool blocked);

    /// Hands over what is due, puts away devices that left by themselves and brings back those that
    /// do not stay away.
    void service();

    /// When service() has to be called next, if ever.
    std::optional<Millis> next_due() const;

private:
    struct TestbedDeleter {
        void operator()(UMockdevTestbed* testbed) const { g_object_unref(testbed); }
    };

    /// A device that is on its way between its application and its boot loader.
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
    std::optional<DirectoryOwnership> ownership_;  // goes after the directory
    std::unique_ptr<UMockdevTestbed, TestbedDeleter> testbed_;
    std::string root_;
    std::optional<UeventSender> uevents_;
    std::map<BusAddress, std::unique_ptr<UsbfsNode>> nodes_;
    std::map<BusAddress, std::shared_ptr<SimDevice>> devices_;
    std::vector<Returning> returning_;
    std::map<std::uint8_t, std::uint8_t> last_addresses_;  // by bus
};

}  // namespace jovusim
