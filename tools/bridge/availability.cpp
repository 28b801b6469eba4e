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
/// Other bridges with a device of one name; one is enough to refuse.
constexpr std::size_t kMostOthers = 16;
/// Bytes of the name of another bridge, and of what a bridge says.
constexpr std::size_t kMaxName = 256;
constexpr std::size_t kMaxPayload = 4096;
/// How long another bridge may take to hear this one's states anew, and to contradict.
constexpr std::chrono::seconds kCertainAfter{5};

Json parse(const std::string& payload) {
    return payload.size() > kMaxPayload ? Json() : Json::parse(payload, nullptr, false);
}

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

void Availability::publish_here(const std::string& device, const Known& known) {
    if (!known.there()) {
        publish(device, true, "connected");
        return;
    }
    const std::string what = "another controller with the serial number " + device +
                             " is at the bridge " + known.rival() +
                             "; requests that change something are refused";
    log_.error(what);
    publish(device, true, what);
}

void Availability::connected(const std::string& device) {
    const MutexLock lock(mutex_);
    Known& known = known_[device];
    known.here = true;
    publish_here(device, known);
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

bool Availability::receive(const std::string& device, const std::string& payload, bool stored) {
    const Json object = parse(payload);
    const std::string state = text_of(object, "state");
    const std::string bridge = text_of(object, "bridge");
    if (bridge.empty() || bridge.size() > kMaxName) {
        return false;
    }
    const MutexLock lock(mutex_);
    const auto found = known_.find(device);
    if (bridge == bridge_) {
        const bool here = found != known_.end() && found->second.here;
        if (!here && stored && state == "online" && said_online_.size() < kMostSaidOnline) {
            said_online_.insert(device);
        }
        if (found != known_.end()) {
            found->second.speaker.clear();
        }
        return false;
    }
    said_online_.erase(device);
    if (found == known_.end()) {
        return false;
    }
    Known& known = found->second;
    known.speaker = bridge;
    if (state == "offline") {
        // The device was there before it came here, or both had one of the same name.
        remove_other(device, known, bridge);
        return known.here;
    }
    // A stored one may be of a bridge that was killed; this bridge's own value replaces it.
    if (state == "online" && !(known.here && stored) && known.others.size() < kMostOthers &&
        known.others.insert(bridge).second) {
        known.uncertain.erase(bridge);
        if (known.here) {
            publish_here(device, known);  // So that the other bridge learns it as well.
        }
    }
    return false;
}

void Availability::receive_bridge(const std::string& bridge, const std::string& payload) {
    if (text_of(parse(payload), "state") != "offline") {
        return;
    }
    const MutexLock lock(mutex_);
    for (auto& [device, known] : known_) {
        if (known.others.count(bridge) + known.uncertain.count(bridge) != 0) {
            remove_other(device, known, bridge);
        }
    }
}

void Availability::remove_other(const std::string& device, Known& known,
                                const std::string& bridge) {
    known.others.erase(bridge);
    known.uncertain.erase(bridge);
    if (known.here) {
        publish_here(device, known);
    }
}

void Availability::reconnected(Clock::time_point now) {
    const MutexLock lock(mutex_);
    reconnected_ = now;
    for (auto& [device, known] : known_) {
        known.uncertain.merge(known.others);
        known.others.clear();
    }
}

void Availability::settle(Clock::time_point now, bool connected) {
    const MutexLock lock(mutex_);
    if (now - reconnected_ >= kCertainAfter) {
        for (auto& [device, known] : known_) {
            const bool forgets = !std::exchange(known.uncertain, {}).empty();
            if (forgets && known.here) {
                publish_here(device, known);
            }
        }
    }
    if (!connected) {
        return;
    }
    for (const std::string& device : std::exchange(said_online_, {})) {
        const auto known = known_.find(device);
        if (known == known_.end() || !known->second.here) {
            publish(device, false, "disconnected");
            outbox_.forget(topics_.device(device, ""), topics_.device(device, "availability"));
        }
    }
}

bool Availability::elsewhere(const std::string& device) const {
    const MutexLock lock(mutex_);
    const auto known = known_.find(device);
    return known != known_.end() && !known->second.here && !known->second.speaker.empty();
}

std::string Availability::rival(const std::string& device) const {
    const MutexLock lock(mutex_);
    const auto known = known_.find(device);
    return known != known_.end() && known->second.here && known->second.there()
               ? known->second.rival()
               : std::string();
}

}  // namespace jovu_bridge
