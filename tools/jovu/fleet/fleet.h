// SPDX-License-Identifier: Apache-2.0

/// @file
/// The devices behind a message broker, as their bridges describe them.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "cli/json.h"
#include "cli/options.h"
#include "mqtt/client.h"
#include "mqtt/topics.h"
#include "posix/files.h"
#include "posix/mutex.h"
#include "posix/stop_source.h"

namespace jovu_cli {

/// One device, from its retained topics.
struct FleetDevice {
    std::string serial;
    std::string bridge;
    bool online = false;
    std::string reason{};  ///< Why the bridge cannot use it.
    std::string version{};
    std::string port{};
    bool read_only = false;
};

/// @return a string member; empty when it is missing or of another kind.
std::string string_member(const Json& object, const char* key);

/// @return the object in a payload; null for anything else.
Json parse_payload(const std::string& payload);

/// The connection to the broker and the table of devices. To be used by one thread.
class Fleet {
public:
    using Clock = jovu_mqtt::Clock;

    /// Connects, and reads which devices there are.
    /// @throws Failure when that does not succeed within --timeout, or 10 s without it.
    Fleet(const CommonOptions& options, StopSource& stop);
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    /// By serial number.
    const std::map<std::string, FleetDevice>& devices() const { return devices_; }
    /// @return a device without a bridge for an unknown serial number.
    const FleetDevice& device(const std::string& serial) const;
    /// @return why a device cannot be used; empty when it can.
    std::string obstacle(const FleetDevice& device) const;

    enum class Unchosen { all, only_one };
    /// @param unchosen what is chosen without -s and --all: all devices, or the only one that can
    ///     be used.
    /// @return the serial numbers of the chosen devices, at least one.
    /// @throws Failure no_device or several_devices.
    std::vector<std::string> choose(Unchosen unchosen) const;

    /// Subscribes to a topic of every device.
    /// @param stored whether what the broker has stored is received.
    void subscribe(const std::string& leaf, int qos, bool stored);

    /// Waits for the next message, and takes those about the devices into the table.
    /// @return nothing at the deadline, and at least once a second.
    /// @throws Failure when the program is to end or the broker refuses a subscription.
    std::optional<jovu_mqtt::Message> next(Clock::time_point deadline);

    /// Takes out the next message without waiting.
    std::optional<jovu_mqtt::Message> poll();
    /// A descriptor that is readable while poll() may return something. For poll(2) only.
    int fd() const noexcept;

    const jovu_mqtt::Topics& topics() const { return topics_; }
    /// Where bridges send responses to this program.
    const std::string& response_topic() const { return response_topic_; }
    std::optional<jovu_mqtt::Token> publish(jovu_mqtt::Message message) {
        return client_->publish(std::move(message));
    }
    bool connected() const { return client_->connected(); }
    /// How often the connection was made.
    unsigned connections() const { return connections_; }
    /// @return the messages that the broker has refused since the last call, with the reasons.
    std::map<jovu_mqtt::Token, std::string> take_refusals() { return std::exchange(refusals_, {}); }
    /// @return number of messages that were dropped since the last call, as they arrived faster
    ///     than they were taken out.
    std::size_t take_lost();

private:
    struct Subscribed {
        std::string filter;
        std::string refusal;
    };
    struct Connected {};
    using Item = std::variant<jovu_mqtt::Message, jovu_mqtt::Disconnection,
                              jovu_mqtt::Acknowledgement, Subscribed, Connected>;

    /// Between the client's thread and this one.
    struct Inbox {
        Inbox();
        void put(Item item);

        Mutex mutex;
        std::deque<Item> items JOVU_GUARDED_BY(mutex);
        std::size_t lost JOVU_GUARDED_BY(mutex) = 0;
        FileDescriptor event;  ///< An eventfd.
    };

    jovu_mqtt::ClientOptions client_options(const CommonOptions& options);
    jovu_mqtt::Handlers handlers();
    void connect(Clock::time_point deadline);
    void discover(Clock::time_point deadline);
    std::optional<Item> take_item();
    void take_disconnection(const jovu_mqtt::Disconnection& disconnection);
    void take_state(const jovu_mqtt::Message& message);
    void wait(Clock::time_point deadline);
    std::string where() const;

    StopSource& stop_;
    const FleetOptions options_;
    const std::vector<std::string> patterns_;
    jovu_mqtt::BrokerUrl url_;
    jovu_mqtt::Topics topics_;
    std::string client_id_;
    std::string response_topic_;
    std::map<std::string, FleetDevice> devices_;
    std::map<std::string, bool> bridges_;  ///< Whether each is online.
    std::map<jovu_mqtt::Token, std::string> refusals_;
    unsigned connections_ = 0;
    std::string last_reason_;  ///< Why there is no connection.
    bool refused_ = false;
    Inbox inbox_;
    std::unique_ptr<jovu_mqtt::Client> client_;  ///< Last: its handlers use the inbox.
};

/// @return 32 random hexadecimal digits, for the ids of requests and of connections.
std::string random_id();

}  // namespace jovu_cli
