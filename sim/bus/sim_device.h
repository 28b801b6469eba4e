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

#include "bus/mutex.h"
#include "bus/pty_node.h"
#include "bus/types.h"
#include "bus/urb_engine.h"
#include "firmware/usb/controller.h"

namespace jovusim {

/// What claiming, or submitting to an interface that has to be claimed for it, returns when another
/// open file holds the interface. That file may have been closed already: unlike a kernel, this
/// program notices that a moment later. So it is worth trying again, and EBUSY only then.
constexpr int kContended = -1;

/// A device node with everything behind it: who has it open, what is claimed, the transfers in
/// flight, the function. This is where threads meet: ioctls come on a thread for each open file,
/// control requests and the clock on the main thread. One lock guards all of it; no other lock is
/// taken under it, and nothing under it blocks.
///
/// Made on the main thread; destroyed there, or with its last client on that one's thread.
class SimDevice {
public:
    /// @param wake called, under the lock, when the main thread should look at next_due() or
    ///             unplug_requested(); must not block
    SimDevice(BusAddress address, std::unique_ptr<UsbFunction> function,
              std::function<void()> wake);
    SimDevice(const SimDevice&) = delete;
    SimDevice& operator=(const SimDevice&) = delete;
    ~SimDevice();

    BusAddress address() const { return address_; }
    const UsbIdentity& identity() const { return identity_; }
    const std::string& node_path() const { return node_path_; }

    /// @name What an open file of the node does. Each returns 0 or the errno of the failed ioctl,
    /// claim() and submit() also kContended. After an unplug all but reap() and close() fail with
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
    /// As in the kernel, a reset takes the interfaces and the transfers in flight from all open
    /// files; selecting a configuration fails with EBUSY while an interface is claimed.
    int reset();
    int set_configuration(unsigned value);
    /// 0 or ENODEV: for what needs nothing but the device's presence.
    int check_present();
    /// @}

    /// Counts an ioctl of any kind.
    void count_ioctl();

    /// Counts a claim that was refused for good because of another open file.
    void count_refused_claim();

    /// Takes the device off the bus: transfers in flight end, the node hangs up. Can be called
    /// again.
    void unplug();
    bool unplugged() const { return unplugged_; }

    /// @name Main thread
    /// @{
    /// Hands over what has become due.
    void tick();
    std::optional<Millis> next_due();

    /// Runs something on the controller under the lock, and hands over what came of it.
    /// @throws std::runtime_error when the device does not run its application
    void with_controller(const std::function<void(Controller&, Millis)>& work);

    /// Runs something on whatever the device is, likewise.
    void with_function(const std::function<void(UsbFunction&, Millis)>& work);

    /// What a device that has left by itself comes back as, or null. To be called once.
    std::unique_ptr<UsbFunction> take_successor();

    /// Runs something on the faults under the lock.
    void with_faults(const std::function<void(FaultTable&)>& work);

    std::size_t open_clients();
    Json stats();
    /// @}

    /// Prints what the firmware complains about. Any thread, without the lock.
    void print_violations();

private:
    void update_state(Millis now) JOVU_REQUIRES(mutex_);
    std::optional<Millis> due_at(Millis now) const JOVU_REQUIRES(mutex_);
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
    std::unique_ptr<UsbFunction> function_ JOVU_GUARDED_BY(mutex_);
    const UsbIdentity& identity_;  // the function's, which is constant
    FaultTable faults_ JOVU_GUARDED_BY(mutex_);
    UrbEngine engine_ JOVU_GUARDED_BY(mutex_);
    PtyNode node_ JOVU_GUARDED_BY(mutex_);
    bool disconnected_itself_ JOVU_GUARDED_BY(mutex_) = false;
    std::set<ClientId> clients_ JOVU_GUARDED_BY(mutex_);
    std::map<std::size_t, ClientId> claims_ JOVU_GUARDED_BY(mutex_);
    ClientId next_client_ JOVU_GUARDED_BY(mutex_) = 1;
    /// The moment for which the main thread was last woken.
    std::optional<Millis> announced_due_ JOVU_GUARDED_BY(mutex_);
    Counters counters_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovusim
