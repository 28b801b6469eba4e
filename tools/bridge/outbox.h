// SPDX-License-Identifier: Apache-2.0

/// @file
/// What waits for the broker.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "bridge/metrics.h"
#include "bridge/request.h"
#include "mqtt/client.h"
#include "posix/mutex.h"

namespace jovu_bridge {

/// A bounded queue towards the broker. Of a retained topic it keeps the newest value; when there
/// are too many events, or too many responses, it drops the oldest, counts them and tells how many.
///
/// Threads: any. The mutex is held while a message is handed to the connection, which takes it
/// without waiting and calls nothing back.
class Outbox {
public:
    /// What 10,000 messages do not reach unless they are of unusual length.
    static constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

    struct Limits {
        std::size_t max_events = 10000;
        std::size_t max_responses = 10000;
        std::size_t max_bytes = kMostBytes;  ///< Of the events, and of the responses.
    };

    /// Messages that the broker has not acknowledged.
    static constexpr std::size_t kWindow = 200;

    /// Hands a message to the connection; as jovu_mqtt::Client::publish().
    using Send = std::function<std::optional<jovu_mqtt::Token>(jovu_mqtt::Message)>;

    Outbox(const Limits& limits, Send send, Metrics& metrics);

    /// Sets the value of a retained topic.
    void state(const std::string& topic, std::string payload);

    /// The retained topics that begin with @p prefix are not sent again at the next connection.
    /// What waits of them is sent, but without a connection only @p last: the others may be of
    /// another bridge by then.
    void forget(const std::string& prefix, const std::string& last);

    /// Sends the retained topics that begin with @p prefix again: another has overwritten them.
    void again(const std::string& prefix);

    /// Adds an event. It is retained, so that a new subscriber receives the last one.
    void event(const std::string& topic, std::string payload);

    /// Adds to the number of events of a topic that were dropped before they came here.
    void lost_events(const std::string& topic, std::uint64_t count);

    /// Adds a response. One that is not final is dropped while there is no connection.
    void respond(const ReplyTo& reply, std::string payload, bool final);

    /// Sends samples, or drops them.
    /// @return whether the connection has taken them.
    bool samples(const std::string& topic, std::string payload);

    /// The connection begins: all retained topics are sent anew.
    void connected();
    void disconnected();

    void acknowledged(const jovu_mqtt::Acknowledgement& acknowledgement);

    /// Messages that were dropped since the start.
    std::uint64_t lost() const;

    /// Messages that wait, or are on their way.
    std::size_t size() const;

private:
    using Clock = std::chrono::steady_clock;
    struct State {
        std::string payload;
        bool waits = false;   ///< To be sent.
        bool on_way = false;  ///< An earlier value is not acknowledged yet.
        bool last = false;    ///< To be forgotten once it is acknowledged.
    };
    struct Queued {
        std::string topic;
        std::string payload;
        std::string correlation;

        std::size_t bytes() const { return topic.size() + payload.size() + correlation.size(); }
    };
    class Queue {
    public:
        bool empty() const { return messages_.empty(); }
        std::size_t size() const { return messages_.size(); }
        std::size_t bytes() const { return bytes_; }
        const Queued& front() const { return messages_.front(); }
        void push(Queued message) {
            bytes_ += message.bytes();
            messages_.push_back(std::move(message));
        }
        void pop() {
            bytes_ -= messages_.front().bytes();
            messages_.pop_front();
        }

    private:
        std::deque<Queued> messages_;
        std::size_t bytes_ = 0;
    };
    struct Sent {
        Clock::time_point time;
        std::string topic;  ///< Of a retained state; empty for others.
    };

    void send_again(const std::string& topic, State& state) JOVU_REQUIRES(mutex_);
    void drain() JOVU_REQUIRES(mutex_);
    bool drain_responses() JOVU_REQUIRES(mutex_);
    bool drain_states() JOVU_REQUIRES(mutex_);
    bool drain_events() JOVU_REQUIRES(mutex_);
    /// @return whether the connection has taken the message.
    bool send(const char* kind, jovu_mqtt::Message message, const std::string& state_topic)
        JOVU_REQUIRES(mutex_);
    std::size_t size_locked() const JOVU_REQUIRES(mutex_);
    void drop(const char* kind, std::uint64_t count) JOVU_REQUIRES(mutex_);

    const Send send_;
    Metrics& metrics_;
    const Limits limits_;
    mutable jovu_cli::Mutex mutex_;
    bool connected_ JOVU_GUARDED_BY(mutex_) = false;
    std::map<std::string, State> states_ JOVU_GUARDED_BY(mutex_);
    std::deque<std::string> waiting_states_ JOVU_GUARDED_BY(mutex_);  ///< Topics, oldest first.
    Queue events_ JOVU_GUARDED_BY(mutex_);
    std::map<std::string, std::uint64_t> lost_events_ JOVU_GUARDED_BY(mutex_);  ///< By topic.
    Queue responses_ JOVU_GUARDED_BY(mutex_);
    std::map<jovu_mqtt::Token, Sent> sent_ JOVU_GUARDED_BY(mutex_);
    std::uint64_t lost_ JOVU_GUARDED_BY(mutex_) = 0;
};

}  // namespace jovu_bridge
