// SPDX-License-Identifier: Apache-2.0
#include "bridge/availability.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "bridge/running_requests.h"
#include "terminal/format.h"

namespace jovu_bridge {

using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

/// Devices that an earlier run may have left online; more than one computer has.
constexpr std::size_t kMostSaidOnline = 1000;
/// Bytes of the name of another bridge.
constexpr std::size_t kMaxName = 256;

/// @return the string of a member; empty when there is none.
std::string text_of(const Json& object, const char* member) {
    const auto found = object.is_object() ? object.find(member) : object.end();
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace

Availability::Availability(Outbox& outbox, Log& log, const jovu_mqtt::Topics& topics,
                           std::string bridge)
    : outbox_(outbox), log_(log), topics_(topics), bridge_(std::move(bridge)) {}

void Availability::publish(const std::string& device, bool online, const std::string& reason) {
    outbox_.state(topics_.device(device, "availability"),
                  to_payload({{"state", online ? "online" : "offline"},
                              {"bridge", bridge_},
                              {"time", jovu_cli::utc_string(std::chrono::system_clock::now())},
                              {"reason", reason}}));
}

void Availability::publish_rival(const std::string& device, const std::string& bridge) {
    const std::string what = "another controller with the serial number " + device +
                             " is at the bridge " + bridge +
                             "; both refuse requests that change something";
    log_.error(what);
    publish(device, true, what);
}

void Availability::connected(const std::string& device) {
    const MutexLock lock(mutex_);
    Known& known = known_[device];
    known.here = true;
    if (known.there) {
        publish_rival(device, known.other);
    } else {
        known.other.clear();
        publish(device, true, "connected");
    }
}

void Availability::disconnected(const std::string& device, const std::string& reason) {
    const MutexLock lock(mutex_);
    const auto known = known_.find(device);
    if (known != known_.end()) {
        known->second.here = false;
    }
    publish(device, false, reason);
}

void Availability::tell(const std::string& device, const std::string& reason) {
    const MutexLock lock(mutex_);
    publish(device, true, reason);
}

void Availability::receive(const std::string& device, const std::string& payload, bool stored) {
    const Json object = Json::parse(payload, nullptr, false);
    const std::string state = text_of(object, "state");
    const std::string bridge = text_of(object, "bridge");
    if (bridge.empty() || bridge.size() > kMaxName) {
        return;
    }
    const MutexLock lock(mutex_);
    const auto found = known_.find(device);
    const bool here = found != known_.end() && found->second.here;
    if (bridge == bridge_) {
        if (!here && stored && state == "online" && said_online_.size() < kMostSaidOnline) {
            said_online_.insert(device);
        }
        return;
    }
    said_online_.erase(device);
    if (found == known_.end()) {
        return;
    }
    Known& known = found->second;
    if (state == "online" && !(here && stored)) {
        // A stored one may be of a bridge that was killed; this bridge's own value replaces it.
        const bool is_new = !known.there;
        known.other = bridge;
        known.there = true;
        if (here && is_new) {
            publish_rival(device, bridge);  // So that the other bridge learns it as well.
        }
    } else if (state == "offline") {
        leave_other(device, known);
    }
}

void Availability::receive_bridge(const std::string& bridge, const std::string& payload) {
    if (text_of(Json::parse(payload, nullptr, false), "state") != "offline") {
        return;
    }
    const MutexLock lock(mutex_);
    for (auto& [device, known] : known_) {
        if (known.there && known.other == bridge) {
            leave_other(device, known);
        }
    }
}

/// The other bridge has not got the device any more, or is gone itself. It is remembered for a
/// device that is not here: it alone may know how a request ended.
void Availability::leave_other(const std::string& device, Known& known) {
    known.there = false;
    if (known.here) {
        known.other.clear();
        publish(device, true, "connected");
    }
}

void Availability::correct() {
    const MutexLock lock(mutex_);
    for (const std::string& device : std::exchange(said_online_, {})) {
        const auto known = known_.find(device);
        if (known == known_.end() || !known->second.here) {
            publish(device, false, "disconnected");
        }
    }
}

bool Availability::elsewhere(const std::string& device) const {
    const MutexLock lock(mutex_);
    const auto known = known_.find(device);
    return known != known_.end() && !known->second.here && !known->second.other.empty();
}

std::string Availability::rival(const std::string& device) const {
    const MutexLock lock(mutex_);
    const auto known = known_.find(device);
    return known != known_.end() && known->second.here && known->second.there ? known->second.other
                                                                              : std::string();
}

}  // namespace jovu_bridge
