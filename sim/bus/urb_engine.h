/// @file
/// Transfers in flight, and the faults injected into them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "firmware/base/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// Where a fault strikes.
enum class BusFault : std::uint8_t {
    claim,   ///< claiming an interface fails with an errno
    submit,  ///< submitting a transfer fails with an errno
    status,  ///< a transfer ends with an errno as its status
    never,   ///< a transfer does not end until it is discarded
};

/// The faults that are set. Plain values: the device's lock guards them.
class FaultTable {
public:
    /// Queues a fault behind those of the same kind and endpoint.
    /// @param endpoint 0 for BusFault::claim
    /// @param error    a positive errno; ignored for BusFault::never
    /// @param count    how often it happens, kAlways for ever
    /// @param skip     how often all goes well before
    void add(BusFault fault, std::uint8_t endpoint, int error, std::uint32_t count,
             std::uint32_t skip);

    /// Asks whether the fault happens now, and counts. Returns its errno, or 0 for none; 1 stands
    /// for BusFault::never.
    int take(BusFault fault, std::uint8_t endpoint);

    /// The device leaves the bus by itself behind that many bytes on that OUT endpoint.
    void unplug_after(std::uint8_t endpoint, std::uint64_t bytes);

    /// Counts bytes that are about to reach the device. Returns how many of them still do when the
    /// device leaves the bus at that place, nothing when it stays.
    std::optional<std::size_t> count_out(std::uint8_t endpoint, std::size_t size);

    /// Takes all of them back.
    void clear();

private:
    struct Setting {
        int error;
        std::uint32_t count;
        std::uint32_t skip;
    };

    std::map<std::pair<BusFault, std::uint8_t>, std::deque<Setting>> settings_;
    std::map<std::uint8_t, std::uint64_t> unplug_after_;
};

/// An open file of a device node.
using ClientId = std::uint64_t;

/// One transfer request of a client.
struct Urb {
    ClientId client = 0;
    std::uint64_t handle = 0;  ///< what the client names it by
    bool control = false;      ///< otherwise bulk
    std::uint8_t endpoint = 0;
    std::uint8_t* buffer = nullptr;  ///< a control transfer's begins with the setup packet
    std::size_t length = 0;
    std::shared_ptr<void> memory;  ///< keeps buffer alive

    int status = 0;          ///< when finished: 0 or a negative errno
    std::size_t actual = 0;  ///< bytes of data transferred
};

/// Matches transfers with the packets of a function. No lock of its own: the device's lock guards
/// every call, and the memory of the transfers in flight.
class UrbEngine {
public:
    /// Both must outlive the engine.
    UrbEngine(UsbFunction& function, FaultTable& faults);

    /// Begins a transfer. Returns 0 or the errno with which submitting failed. The device may want
    /// to leave the bus because of it: see unplug_requested().
    int submit(Urb urb, Millis now);

    /// Ends a transfer early. Returns 0, or EINVAL when there is no such one in flight.
    int discard(ClientId client, std::uint64_t handle);

    /// The next finished transfer of a client.
    std::optional<Urb> reap(ClientId client);

    /// Hands packets that have become available to the transfers that wait for them.
    void pump(Millis now);

    /// Ends all transfers on one interface's endpoints, as releasing it does: they are its
    /// holder's.
    void discard_interface(std::size_t interface);

    /// Forgets everything about a client.
    void forget(ClientId client);

    /// Ends all transfers in flight with that status, a negative errno.
    void end_all(int status);

    /// Whether a finished transfer waits for its client.
    bool has_finished() const { return !finished_.empty(); }

    /// Whether an armed fault asks for the device to be unplugged now.
    bool unplug_requested() const { return unplug_requested_; }

    /// The interface that an endpoint belongs to, or nothing.
    std::optional<std::size_t> interface_of(std::uint8_t endpoint) const;

    /// Per endpoint: bytes, finished transfers and transfers in flight.
    Json stats() const;

private:
    struct Endpoint {
        std::size_t interface = 0;
        std::deque<Urb> waiting;  ///< in order of submission
        std::deque<Urb> stuck;    ///< those that never end by themselves
        std::uint64_t bytes = 0;
        std::uint64_t transfers = 0;
    };

    void finish(Urb urb, int status);
    void finish_all(std::deque<Urb>& urbs, int status);
    void pump(std::uint8_t address, Endpoint& endpoint, Millis now);
    void send_out(Urb urb, Endpoint& endpoint, Millis now);
    void run_control(Urb urb, Millis now);

    UsbFunction& function_;
    FaultTable& faults_;
    std::map<std::uint8_t, Endpoint> endpoints_;
    std::deque<Urb> cut_short_;  ///< control transfers at which the device left
    std::deque<Urb> finished_;
    bool unplug_requested_ = false;
};

}  // namespace jovusim
