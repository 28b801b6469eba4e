// SPDX-License-Identifier: Apache-2.0

/// @file
/// Which bridge has a device, as all bridges tell through the broker.
#pragma once

#include <map>
#include <set>
#include <string>

#include "bridge/log.h"
#include "bridge/outbox.h"
#include "mqtt/topics.h"
#include "posix/mutex.h"

namespace jovu_bridge {

/// Publishes the availability of this bridge's devices, and reads that of the others', because
/// - a device that was plugged into another computer is that bridge's: it responds, this one is
///   silent;
/// - two bridges with controllers of the same serial number would both carry out a request, so
///   neither does;
/// - what a bridge says last of a device stands at the broker, even of one that has left it.
///
/// Threads: any. The outbox is called with the mutex held, so that the values of a topic follow one
/// another.
class Availability {
public:
    /// @param bridge the name of this bridge.
    Availability(Outbox& outbox, Log& log, const jovu_mqtt::Topics& topics, std::string bridge);

    /// The device is at this bridge.
    void connected(const std::string& device);
    /// The device has left this bridge, or cannot be used.
    void disconnected(const std::string& device, const std::string& reason);
    /// Something about a device at this bridge that people must know.
    void tell(const std::string& device, const std::string& reason);

    /// The availability of a device has arrived from the broker.
    /// @param stored the broker had it before this bridge subscribed.
    void receive(const std::string& device, const std::string& payload, bool stored);
    /// The state of a bridge has arrived from the broker.
    void receive_bridge(const std::string& bridge, const std::string& payload);

    /// Corrects what an earlier run of this bridge, which was killed, has left at the broker.
    /// Called when the devices that are attached have had the time to connect.
    void correct();

    /// Whether the device has left this bridge for another.
    bool elsewhere(const std::string& device) const;
    /// @return the other bridge that has a device of the same name as one here; empty for none.
    std::string rival(const std::string& device) const;

private:
    struct Known {
        bool here = false;
        bool there = false;  ///< The other bridge has it.
        std::string other;   ///< The other bridge that has it, or had it last; empty for none.
    };

    void publish(const std::string& device, bool online, const std::string& reason)
        JOVU_REQUIRES(mutex_);
    void publish_rival(const std::string& device, const std::string& bridge) JOVU_REQUIRES(mutex_);
    void leave_other(const std::string& device, Known& known) JOVU_REQUIRES(mutex_);

    Outbox& outbox_;
    Log& log_;
    const jovu_mqtt::Topics topics_;
    const std::string bridge_;
    /// Acquired before that of the outbox.
    mutable jovu_cli::Mutex mutex_;
    std::map<std::string, Known> known_ JOVU_GUARDED_BY(mutex_);  ///< All that were ever here.
    /// What the broker had stored as online at this bridge.
    std::set<std::string> said_online_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovu_bridge
