// SPDX-License-Identifier: Apache-2.0

/// @file
/// A connection to an MQTT 5 broker that is made again whenever it is lost.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "mqtt/broker_url.h"

namespace jovu_mqtt {

using Clock = std::chrono::steady_clock;

/// The MQTT 5 properties of a message that this project uses.
struct Properties {
    std::string response_topic{};
    std::string correlation_data{};  ///< Bytes.
    std::string content_type{};
    std::optional<std::chrono::seconds> expiry{};
};

/// A message, as it is published or received.
struct Message {
    std::string topic;
    std::string payload{};
    int qos = 1;          ///< 0 or 1.
    bool retain = false;  ///< As received: see Subscription::retain_as_published.
    Properties properties{};
};

/// Topics to receive.
struct Subscription {
    std::string filter;
    int qos = 1;
    /// Message::retain tells how a message was published. Otherwise it tells whether the message
    /// was stored by the broker before the subscription.
    bool retain_as_published = false;
    /// Messages that the broker has stored are received.
    bool receive_stored = true;
};

/// What a connection is made with.
struct ClientOptions {
    BrokerUrl broker{};
    /// @name TLS, for mqtts URLs. The broker's certificate is always verified.
    /// @{
    std::string ca_file{};           ///< Empty: the certificates that the system trusts.
    std::string certificate_file{};  ///< Of the client; empty for none.
    std::string key_file{};          ///< Without a passphrase.
    /// @}
    std::string user{};
    std::string password{};
    std::string client_id{};  ///< Must be unique on the broker.
    /// The broker forgets what it knows of an earlier connection with this client id.
    bool clean_start = true;
    /// How long the broker keeps the subscriptions and messages of a lost connection.
    std::chrono::seconds session_expiry{0};
    /// Published by the broker when the connection ends without disconnect().
    std::optional<Message> last_will{};
    std::chrono::seconds keep_alive{30};  ///< At least 5.
    /// How long the broker may take to accept a connection.
    std::chrono::milliseconds connect_limit{10'000};
    /// Size of the largest packet that the broker may send; 0 for no limit.
    std::uint32_t max_packet_size = 0;
    /// Number of messages that publish() takes before their acknowledgement.
    std::size_t max_unacknowledged = 1000;
    /// @name The pauses before the connection is made again. They double, and vary by a quarter.
    /// @{
    std::chrono::milliseconds min_pause{1000};
    std::chrono::milliseconds max_pause{30'000};
    /// @}
};

/// Why there is no connection.
struct Disconnection {
    std::string reason;          ///< "Connection refused", "Not authorized"
    bool was_connected = false;  ///< The broker had accepted the connection.
    /// The broker has refused it: another attempt with the same options hardly helps.
    bool refused = false;
    std::chrono::milliseconds retry_in{};
};

/// Number of a message that publish() has taken.
using Token = std::uint64_t;

/// The end of a message's way to the broker.
struct Acknowledgement {
    Token token;
    std::string refusal;  ///< Why the broker does not have the message; empty when it has it.
    /// The broker has told that nobody has subscribed to the topic.
    bool no_subscriber = false;
};

/// What a Client calls, on its own thread, one at a time and with no lock held. A handler may use
/// the Client except disconnect() and its destructor, and must not wait: nothing is received or
/// acknowledged meanwhile. Those that are empty are not called.
struct Handlers {
    /// @param session_present the broker has kept the session.
    std::function<void(bool session_present)> connected{};
    /// A connection was lost, or an attempt to make it has failed.
    std::function<void(const Disconnection&)> disconnected{};
    std::function<void(const Message&)> message{};
    std::function<void(const Acknowledgement&)> acknowledged{};
    /// The broker has handled a subscription, also each time after a reconnection.
    /// @param refusal empty when it was granted.
    std::function<void(const std::string& filter, const std::string& refusal)> subscribed{};
    /// A handler has thrown, or memory is exhausted. The connection has ended and is not made
    /// again. Without this handler the exception ends the process.
    std::function<void(std::exception_ptr)> failed{};
};

/// Owns one connection and the thread that serves it. Every member function may be called from any
/// thread, but for those that say otherwise.
class Client {
public:
    /// @throws Error when a file of the options cannot be used.
    Client(ClientOptions options, Handlers handlers);
    /// Ends as disconnect() with kLeaveLimit.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Begins to connect. No handler is called before. Must be called once.
    void start();

    /// Subscribes now and after each reconnection. Subscriptions are sent in the order of the
    /// calls, and before the messages that are published later.
    void subscribe(Subscription subscription);

    /// Takes a message for the broker. One with QoS 1 is sent again until the broker acknowledges
    /// it, over any number of connections; one with QoS 0 is refused without a connection.
    /// @return nothing when ClientOptions::max_unacknowledged messages are on their way, or the
    ///     client has ended: the message is not taken.
    std::optional<Token> publish(Message message);

    bool connected() const;
    /// Number of messages on their way.
    std::size_t unacknowledged() const;

    /// Waits until at most @p count messages are on their way. Not in a handler.
    /// @return false at the deadline, or when the client has ended.
    bool wait_unacknowledged(std::size_t count, Clock::time_point deadline) const;

    /// Ends the connection in order, and the thread. What is on its way is given up. Returns within
    /// the limit, also when the broker takes nothing; a look-up of the broker's name that is in
    /// progress is waited for, which the system's resolver limits. Not in a handler.
    /// @param last_will whether the broker publishes it all the same.
    void disconnect(std::chrono::milliseconds limit, bool last_will = false) noexcept;

    static constexpr std::chrono::milliseconds kLeaveLimit{1000};

private:
    class Core;
    std::unique_ptr<Core> core_;
};

}  // namespace jovu_mqtt
