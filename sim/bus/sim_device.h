// SPDX-License-Identifier: Apache-2.0

/// @file
/// One simulated device on the bus.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "bus/pty_node.h"
#include "device/bus.h"
#include "device/device_core.h"
#include "device/mutex.h"
#include "device/types.h"

namespace jovusim {

/// Returned by claim() and submit() when another open file has claimed the interface. That file may
/// have been closed already, which the simulator notices later than a kernel would: the caller
/// retries for a limited time before it fails with EBUSY.
constexpr int kContended = -1;

/// A device node: its open files, claims, transfers in flight and the function behind it. Ioctls
/// arrive on one thread for each open file, control requests and timers on the main thread. One
/// lock guards all state. While it is held no other lock is acquired, but by the listener, and
/// nothing blocks.
///
/// Constructed on the main thread; destroyed there or on the thread of its last open file.
class SimDevice final : public BusDevice {
public:
    /// @param wake called with the lock held when the main thread has to call next_due() or
    ///             unplugged() again; must not block
    /// @param listener sees every transfer; may be empty
    SimDevice(BusAddress address, std::unique_ptr<UsbFunction> function, std::function<void()> wake,
              UrbListener listener = {});
    SimDevice(const SimDevice&) = delete;
    SimDevice& operator=(const SimDevice&) = delete;
    ~SimDevice() override;

    BusAddress address() const { return address_; }
    std::string name() const override { return address_.to_string(); }
    std::string address_attribute() const override { return {}; }
    const UsbIdentity& identity() const override { return identity_; }
    const std::string& node_path() const { return node_path_; }

    /// @name Operations of an open file. Each returns 0 or the errno of the failed ioctl; claim()
    /// and submit() may return kContended. After an unplug all except reap() and close() fail with
    /// ENODEV.
    /// @{
    ClientId open();
    void close(ClientId client);
    int claim(ClientId client, unsigned interface);
    int release(ClientId client, unsigned interface);
    int submit(Urb urb);
    int discard(ClientId client, std::uint64_t handle);
    /// @returns 0 with the transfer in urb, EAGAIN, or ENODEV when the device is gone and nothing
    ///     finished is left
    int reap(ClientId client, std::optional<Urb>& urb);
    /// As in the kernel, a reset ends all claims and all transfers in flight; selecting a
    /// configuration fails with EBUSY while an interface is claimed.
    int reset();
    int set_configuration(unsigned value);
    int clear_halt(unsigned endpoint);
    /// Returns 0 while the device is plugged in, else ENODEV.
    int check_present();
    /// @}

    /// Counts an ioctl of any kind.
    void count_ioctl();

    /// Counts a claim that failed with EBUSY.
    void count_refused_claim();

    /// Unplugs the device: ends the transfers in flight and hangs the node up. Idempotent.
    void unplug();
    bool unplugged() const { return unplugged_; }

    /// @name Main thread
    /// @{
    /// Advances the function and transfers the packets that are due.
    void tick();
    /// When tick() has to be called next, if ever.
    std::optional<Millis> next_due();

    void with_function(const std::function<void(UsbFunction&, Millis)>& work) override;
    void with_faults(const std::function<void(FaultTable&)>& work) override;
    std::size_t open_clients() override;
    Json stats() override;

    /// Returns the function with which a device that disconnected itself returns to the bus, or
    /// null. Call it once.
    std::unique_ptr<UsbFunction> take_successor();
    /// @}

    /// Prints new protocol violations to standard error. Any thread.
    void print_violations();

private:
    void update_state(Millis now) JOVU_REQUIRES(mutex_);
    void unplug_locked() JOVU_REQUIRES(mutex_);
    bool is_held_by_other(ClientId client, std::size_t interface) const JOVU_REQUIRES(mutex_);

    struct Counters {
        std::uint64_t ioctls = 0;
        std::uint64_t reaps = 0;
        std::uint64_t eagains = 0;
        std::uint64_t opens = 0;
        std::uint64_t claims = 0;
        std::uint64_t implicit_claims = 0;
        std::uint64_t refused_claims = 0;
        std::uint64_t releases = 0;
    };

    const BusAddress address_;
    const std::function<void()> wake_;
    std::string node_path_;               // constant after construction
    std::atomic<bool> unplugged_{false};  // set with mutex_ held

    Mutex mutex_;
    DeviceCore core_ JOVU_GUARDED_BY(mutex_);
    const UsbIdentity& identity_;  // the function's, which is constant
    PtyNode node_ JOVU_GUARDED_BY(mutex_);
    std::set<ClientId> clients_ JOVU_GUARDED_BY(mutex_);
    std::map<std::size_t, ClientId> claims_ JOVU_GUARDED_BY(mutex_);
    ClientId next_client_ JOVU_GUARDED_BY(mutex_) = 1;
    /// The moment for which the main thread was last woken.
    std::optional<Millis> announced_due_ JOVU_GUARDED_BY(mutex_);
    Counters counters_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovusim
