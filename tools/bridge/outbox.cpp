// SPDX-License-Identifier: Apache-2.0
#include "bridge/outbox.h"

#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "terminal/format.h"

namespace jovu_bridge {

using jovu_cli::MutexLock;

Outbox::Outbox(const Limits& limits, Send send, Metrics& metrics)
    : send_(std::move(send)), metrics_(metrics), limits_(limits) {}

void Outbox::state(const std::string& topic, std::string payload) {
    const MutexLock lock(mutex_);
    State& state = states_[topic];
    state.payload = std::move(payload);
    state.last = false;
    if (!state.waits) {
        state.waits = true;
        waiting_states_.push_back(topic);
    }
    drain();
}

void Outbox::forget(const std::string& prefix, const std::string& last) {
    const MutexLock lock(mutex_);
    for (auto state = states_.lower_bound(prefix);
         state != states_.end() && state->first.compare(0, prefix.size(), prefix) == 0;) {
        State& forgotten = state->second;
        forgotten.waits = forgotten.waits && (connected_ || state->first == last);
        forgotten.last = true;
        state = forgotten.waits || forgotten.on_way ? std::next(state) : states_.erase(state);
    }
}

void Outbox::again(const std::string& prefix) {
    const MutexLock lock(mutex_);
    for (auto state = states_.lower_bound(prefix);
         state != states_.end() && state->first.compare(0, prefix.size(), prefix) == 0; ++state) {
        send_again(state->first, state->second);
    }
    drain();
}

void Outbox::send_again(const std::string& topic, State& state) {
    if (!state.waits && !state.last) {
        state.waits = true;
        waiting_states_.push_back(topic);
    }
}

void Outbox::event(const std::string& topic, std::string payload) {
    const MutexLock lock(mutex_);
    events_.push({topic, std::move(payload), {}});
    while (events_.size() > limits_.max_events || events_.bytes() > limits_.max_bytes) {
        ++lost_events_[events_.front().topic];
        events_.pop();
        drop("event", 1);
    }
    drain();
}

void Outbox::lost_events(const std::string& topic, std::uint64_t count) {
    const MutexLock lock(mutex_);
    lost_events_[topic] += count;
    drop("event", count);
    drain();
}

void Outbox::respond(const ReplyTo& reply, std::string payload, bool final) {
    if (reply.topic.empty()) {
        return;
    }
    const MutexLock lock(mutex_);
    if (!final && !connected_) {
        return;
    }
    responses_.push({reply.topic, std::move(payload), reply.correlation});
    while (responses_.size() > limits_.max_responses || responses_.bytes() > limits_.max_bytes) {
        responses_.pop();
        drop("response", 1);
    }
    drain();
}

bool Outbox::samples(const std::string& topic, std::string payload) {
    const MutexLock lock(mutex_);
    if (!connected_) {
        return false;
    }
    jovu_mqtt::Message message;
    message.topic = topic;
    message.payload = std::move(payload);
    message.qos = 0;
    const std::size_t bytes = message.payload.size();
    if (!send_(std::move(message))) {
        return false;
    }
    metrics_.published("trace", bytes);
    return true;
}

void Outbox::connected() {
    const MutexLock lock(mutex_);
    connected_ = true;
    for (auto& [topic, state] : states_) {
        send_again(topic, state);
    }
    drain();
}

void Outbox::disconnected() {
    const MutexLock lock(mutex_);
    connected_ = false;
}

void Outbox::acknowledged(const jovu_mqtt::Acknowledgement& acknowledgement) {
    const MutexLock lock(mutex_);
    const auto found = sent_.find(acknowledgement.token);
    if (found == sent_.end()) {
        drain();  // The connection refuses messages while too many samples are unacknowledged.
        return;
    }
    metrics_.acknowledged(Clock::now() - found->second.time);
    if (!found->second.topic.empty()) {
        const auto state = states_.find(found->second.topic);
        if (state != states_.end()) {
            state->second.on_way = false;
            if (state->second.waits) {
                waiting_states_.push_back(state->first);
            } else if (state->second.last) {
                states_.erase(state);
            }
        }
    }
    sent_.erase(found);
    drain();
}

std::uint64_t Outbox::lost() const {
    const MutexLock lock(mutex_);
    return lost_;
}

std::size_t Outbox::size() const {
    const MutexLock lock(mutex_);
    return size_locked();
}

std::size_t Outbox::size_locked() const {
    return sent_.size() + responses_.size() + waiting_states_.size() + events_.size();
}

void Outbox::drop(const char* kind, std::uint64_t count) {
    lost_ += count;
    metrics_.lost(kind, count);
}

void Outbox::drain() {
    if (connected_ && drain_responses() && drain_states()) {
        drain_events();
    }
    metrics_.outbox(size_locked());
}

bool Outbox::drain_responses() {
    for (; !responses_.empty(); responses_.pop()) {
        jovu_mqtt::Message message;
        message.topic = responses_.front().topic;
        message.payload = responses_.front().payload;
        message.properties.correlation_data = responses_.front().correlation;
        message.properties.content_type = "application/json";
        if (!send("response", std::move(message), {})) {
            return false;
        }
    }
    return true;
}

bool Outbox::drain_states() {
    for (; !waiting_states_.empty(); waiting_states_.pop_front()) {
        const auto found = states_.find(waiting_states_.front());
        // The values of a topic follow one another: the next is sent when the broker has this one.
        if (found == states_.end() || !found->second.waits || found->second.on_way) {
            continue;
        }
        State& state = found->second;
        jovu_mqtt::Message message;
        message.topic = waiting_states_.front();
        message.payload = state.payload;
        message.retain = true;
        if (!send("state", std::move(message), waiting_states_.front())) {
            return false;
        }
        state.waits = false;
        state.on_way = true;
    }
    return true;
}

bool Outbox::drain_events() {
    // What was dropped is older than what waits.
    for (auto lost = lost_events_.begin(); lost != lost_events_.end();
         lost = lost_events_.erase(lost)) {
        const nlohmann::ordered_json payload = {
            {"time", jovu_cli::utc_string(std::chrono::system_clock::now())},
            {"kind", "lost"},
            {"count", lost->second}};
        jovu_mqtt::Message message;
        message.topic = lost->first;
        message.payload = payload.dump();
        message.retain = true;
        if (!send("event", std::move(message), {})) {
            return false;
        }
    }
    for (; !events_.empty(); events_.pop()) {
        jovu_mqtt::Message message;
        message.topic = events_.front().topic;
        message.payload = events_.front().payload;
        message.retain = true;
        if (!send("event", std::move(message), {})) {
            return false;
        }
    }
    return true;
}

bool Outbox::send(const char* kind, jovu_mqtt::Message message, const std::string& state_topic) {
    if (sent_.size() >= kWindow) {
        return false;
    }
    const std::size_t bytes = message.payload.size();
    const std::optional<jovu_mqtt::Token> token = send_(std::move(message));
    if (!token) {
        return false;
    }
    sent_.emplace(*token, Sent{Clock::now(), state_topic});
    metrics_.published(kind, bytes);
    return true;
}

}  // namespace jovu_bridge
