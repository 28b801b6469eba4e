// SPDX-License-Identifier: Apache-2.0

/// @file
/// Which bridge has a device, as all bridges tell through the broker.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>

#include "bridge/log.h"
#include "bridge/outbox.h"
#include "mqtt/topics.h"
#include "posix/mutex.h"

namespace jovu_bridge {

/// Publishes the availability of this bridge's devices, and reads that of the others', because
/// - of a device that has left, the bridge that said something of it last responds, even if it is
///   gone itself: it alone knows how requests ended; the others are silent;
/// - bridges with controllers of the same serial number would each carry out a request, so none
///   does;
/// - what a bridge says last of a device stands at the broker, even of one that has left it.
///
/// Threads: any. The outbox is called with the mutex held, so that the values of a topic follow one
/// another.
class Availability {
public:
    using Clock = std::chrono::steady_clock;

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
    /// @return whether another bridge has overwritten the states of a device that is here.
    bool receive(const std::string& device, const std::string& payload, bool stored);
    /// The state of a bridge has arrived from the broker.
    void receive_bridge(const std::string& bridge, const std::string& payload);

    /// The connection to the broker begins: what other bridges said before it is not certain.
    void reconnected(Clock::time_point now);

    /// Called from time to time. Forgets bridges that have not said again what they had said before
    /// the connection to the broker was lost.
    /// @param connected the devices that are attached have had the time to connect: what an earlier
    ///     run of this bridge, which was killed, has left at the broker is corrected.
    void settle(Clock::time_point now, bool connected);

    /// Whether it is for another bridge to respond to requests.
    bool elsewhere(const std::string& device) const;
    /// @return another bridge that has a device of the same name as one here; empty for none.
    std::string rival(const std::string& device) const;

private:
    using Names = std::set<std::string>;
    struct Known {
        bool here = false;
        std::string speaker;  ///< The bridge that said something of it last; empty for this one.
        Names others;         ///< The other bridges that have one of its name.
        Names uncertain;      ///< Those that had before the connection to the broker was lost.

        bool there() const { return !others.empty() || !uncertain.empty(); }
        const std::string& rival() const {
            return others.empty() ? *uncertain.begin() : *others.begin();
        }
    };

    void publish(const std::string& device, bool online, const std::string& reason)
        JOVU_REQUIRES(mutex_);
    /// Publishes that a device is here, and which rival it has.
    void publish_here(const std::string& device, const Known& known) JOVU_REQUIRES(mutex_);
    void remove_other(const std::string& device, Known& known, const std::string& bridge)
        JOVU_REQUIRES(mutex_);

    Outbox& outbox_;
    Log& log_;
    const jovu_mqtt::Topics topics_;
    const std::string bridge_;
    /// Acquired before that of the outbox.
    mutable jovu_cli::Mutex mutex_;
    std::map<std::string, Known> known_ JOVU_GUARDED_BY(mutex_);  ///< All that were ever here.
    /// What the broker had stored as online at this bridge.
    Names said_online_ JOVU_GUARDED_BY(mutex_);
    Clock::time_point reconnected_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovu_bridge
