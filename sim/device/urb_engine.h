// SPDX-License-Identifier: Apache-2.0

/// @file
/// Transfers in flight.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "device/fault_table.h"
#include "device/standard_requests.h"
#include "firmware/base/types.h"
#include "firmware/usb/usb_function.h"

namespace jovusim {

/// An open file of a device node.
using ClientId = std::uint64_t;

/// One transfer request of a client.
struct Urb {
    ClientId client = 0;
    std::uint64_t handle = 0;  ///< chosen by the client
    std::uint64_t id = 0;      ///< chosen by the engine; no other transfer of the device has it
    bool control = false;      ///< otherwise bulk
    std::uint8_t endpoint = 0;
    std::uint8_t* buffer = nullptr;  ///< begins with the setup packet in a control transfer
    std::size_t length = 0;
    std::shared_ptr<void> memory;  ///< keeps buffer alive

    int status = 0;          ///< when finished: 0 or a negative errno
    std::size_t actual = 0;  ///< bytes of data transferred
};

/// What happens to a transfer. Each that is submitted is refused or completed later.
enum class UrbEvent : std::uint8_t {
    submitted,
    refused,    ///< status is that of the failed submission
    completed,  ///< also when it was cancelled or its client has gone
};

/// Called with the device's lock held, in the order of the events.
using UrbListener = std::function<void(UrbEvent, const Urb&)>;

/// Carries out transfers with the packets of a function. Not thread-safe: the device's lock guards
/// every call and the memory of the transfers in flight.
class UrbEngine {
public:
    /// The device is configured. Function and faults must outlive the engine.
    /// @param listener may be empty
    UrbEngine(UsbFunction& function, FaultTable& faults, UsbSpeed speed, UrbListener listener);

    /// Begins a transfer. Returns 0 or the errno with which submitting failed. May set
    /// unplug_requested().
    int submit(Urb urb, Millis now);

    /// Cancels a transfer. Returns 0, or EINVAL when it is not in flight.
    int discard(ClientId client, std::uint64_t handle);

    /// Removes and returns the next finished transfer of a client.
    std::optional<Urb> reap(ClientId client);

    /// Completes waiting IN transfers with the packets that are due.
    void pump(Millis now);

    /// Cancels all transfers on the endpoints of one interface, as releasing it does.
    void discard_interface(std::size_t interface);

    /// Drops all transfers of a client.
    void forget(ClientId client);

    /// Ends all transfers in flight with that status, a negative errno.
    void end_all(int status);

    /// Selects a configuration. Returns false when the device has none of that number.
    bool select_configuration(unsigned value);

    /// Ends the halt of an endpoint.
    void clear_halt(std::uint8_t endpoint) { standard_.clear_halt(endpoint); }

    /// Drops all transfers and the configuration, as when the device is plugged in anew.
    void power_on();

    /// Whether a configuration is selected.
    bool configured() const { return standard_.configured(); }

    /// Whether a finished transfer waits for its client.
    bool has_finished() const { return !finished_.empty(); }

    /// Whether a fault requires the device to be unplugged now.
    bool unplug_requested() const { return unplug_requested_; }

    /// The interface of an endpoint, or nothing.
    std::optional<std::size_t> interface_of(std::uint8_t endpoint) const;

    /// Per endpoint: bytes, finished transfers and transfers in flight.
    Json stats() const;

private:
    struct Endpoint {
        std::size_t interface = 0;
        std::size_t max_packet = 0;
        std::deque<Urb> waiting;  ///< in order of submission
        std::deque<Urb> stuck;    ///< BusFault::never: in flight until cancelled
        std::uint64_t bytes = 0;
        std::uint64_t transfers = 0;
    };

    void report(UrbEvent event, const Urb& urb) const;
    void finish(Urb urb, int status);
    void drop(std::deque<Urb>& urbs, ClientId client);
    void finish_all(std::deque<Urb>& urbs, int status);
    void pump(std::uint8_t address, Endpoint& endpoint, Millis now);
    void send_out(Urb urb, Endpoint& endpoint, Millis now);
    void run_control(Urb urb, Millis now);
    void end_unusable();
    bool cancel(std::deque<Urb>& urbs, ClientId client, std::uint64_t handle);

    UsbFunction& function_;
    FaultTable& faults_;
    StandardRequests standard_;
    const UrbListener listener_;
    std::uint64_t last_id_ = 0;
    std::map<std::uint8_t, Endpoint> endpoints_;
    std::deque<Urb> cut_short_;  ///< control transfers during which the device disconnected
    std::deque<Urb> finished_;
    bool unplug_requested_ = false;
};

}  // namespace jovusim
