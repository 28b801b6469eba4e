// SPDX-License-Identifier: Apache-2.0
#include "mqtt/client.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <random>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "mqtt/error.h"
#include "mqtt/mosquitto_library.h"
#include "posix/files.h"
#include "posix/mutex.h"

namespace jovu_mqtt {
namespace {

using jovu_cli::FileDescriptor;
using jovu_cli::Mutex;
using jovu_cli::MutexLock;
using std::chrono::milliseconds;

/// How often the library's keep-alive is served. It counts whole seconds.
constexpr milliseconds kTick{1000};
/// How often a handshake is continued that waits for no event of the socket.
constexpr milliseconds kHandshakeTick{100};
/// A connection that lasted less counts as another failed attempt, so that two clients with one id
/// do not disconnect each other every second.
constexpr std::chrono::seconds kLasting{10};

}  // namespace

/// The thread and its state.
///
/// The library is used by one thread, in the mode without locks, on a loop of this class's own:
/// poll(2) on the socket and on an eventfd. Against mosquitto_loop_start(), this gives
/// - calls that end: connecting, TLS and leaving have deadlines here, and nothing is joined that
///   waits for the network;
/// - handlers that may call everything: the library's callbacks only note what happened, and the
///   handlers run after the library has returned, so no exception meets its frames and none of its
///   locks is held;
/// - a bound for what is on its way: the library itself queues any number of messages;
/// - descriptors above 1023, which mosquitto_loop() cannot wait for.
class Client::Core {
public:
    Core(ClientOptions options, Handlers handlers);

    void start() {
        thread_ = std::thread([this] { run(); });
    }
    void subscribe(Subscription subscription);
    std::optional<Token> publish(Message message);
    bool connected() const { return connected_.load(); }
    std::size_t unacknowledged() const {
        const MutexLock lock(mutex_);
        return on_their_way_;
    }
    bool wait_unacknowledged(std::size_t count, Clock::time_point deadline) const;
    void disconnect(milliseconds limit, bool last_will) noexcept;

private:
    struct Connected {
        bool session_present;
    };
    struct Subscribed {
        std::string filter;
        std::string refusal;
    };
    using Event = std::variant<Connected, Message, Acknowledgement, Subscribed>;
    struct Outgoing {
        Token token;
        Message message;
    };
    struct InFlight {
        Token token;
        int qos;
    };

    // The thread.
    void run();
    void run_connections();
    Disconnection connect_and_serve();
    std::string connect();
    std::string serve(Clock::time_point connect_deadline);
    bool poll_socket(int socket, Clock::time_point deadline);
    std::string socket_error(int socket) const;
    void hand_over();
    void hand_over_subscription(const Subscription& subscription);
    void hand_over_message(const Outgoing& outgoing);
    void dispatch();
    void handle(const Event& event);
    void lose_connection();
    void leave();
    void pause(milliseconds time);
    milliseconds next_pause(milliseconds base);
    void settle(const Acknowledgement& acknowledgement);
    void wake() const noexcept;
    void drain_wake() const noexcept;

    // The library's callbacks, inside its frames: they note what happened.
    template <class Function>
    static void note(void* core, Function function) noexcept;
    static void on_connect(mosquitto*, void* core, int code, int flags, const mosquitto_property*);
    static void on_disconnect(mosquitto*, void* core, int code, const mosquitto_property*);
    static void on_publish(mosquitto*, void* core, int id, int code, const mosquitto_property*);
    static void on_message(mosquitto*, void* core, const mosquitto_message* message,
                           const mosquitto_property* properties);
    static void on_subscribe(mosquitto*, void* core, int id, int count, const int* granted,
                             const mosquitto_property*);
    static void on_log(mosquitto*, void* core, int level, const char* text);

    const ClientOptions options_;
    const Handlers handlers_;
    FileDescriptor wake_;  ///< An eventfd.
    std::atomic<bool> connected_{false};
    std::atomic<bool> leaving_{false};
    std::atomic<Clock::rep> leave_deadline_{0};
    std::atomic<bool> leave_with_will_{false};

    mutable Mutex mutex_;  ///< Held briefly; no other lock is acquired under it.
    mutable std::condition_variable_any settled_;
    std::vector<Subscription> subscriptions_ JOVU_GUARDED_BY(mutex_);
    std::deque<std::variant<Subscription, Outgoing>> queue_ JOVU_GUARDED_BY(mutex_);
    std::size_t on_their_way_ JOVU_GUARDED_BY(mutex_) = 0;
    Token last_token_ JOVU_GUARDED_BY(mutex_) = 0;
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;

    // Used by the thread only, but for the construction.
    std::vector<Event> events_;
    std::exception_ptr exception_;                      ///< Of a callback.
    std::unordered_map<int, InFlight> in_flight_;       ///< By message id.
    std::unordered_map<int, std::string> subscribing_;  ///< Filters, by message id.
    std::string lost_reason_;
    std::string logged_error_;
    bool refused_ = false;
    bool transport_connected_ = false;
    unsigned failed_attempts_ = 0;
    bool other_family_ = false;
    std::mt19937 random_{std::random_device{}()};
    Handle handle_;  ///< After what its callbacks use.
    std::thread thread_;
};

Client::Core::Core(ClientOptions options, Handlers handlers)
    : options_(std::move(options)),
      handlers_(std::move(handlers)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_.valid()) {
        throw std::system_error(errno, std::system_category(), "eventfd");
    }
    handle_ = make_handle(options_, this);
    mosquitto_connect_v5_callback_set(handle_.get(), on_connect);
    mosquitto_disconnect_v5_callback_set(handle_.get(), on_disconnect);
    mosquitto_publish_v5_callback_set(handle_.get(), on_publish);
    mosquitto_message_v5_callback_set(handle_.get(), on_message);
    mosquitto_subscribe_v5_callback_set(handle_.get(), on_subscribe);
    mosquitto_log_callback_set(handle_.get(), on_log);
}

void Client::Core::subscribe(Subscription subscription) {
    {
        const MutexLock lock(mutex_);
        subscriptions_.push_back(subscription);
        // Without a connection, the next one sends all subscriptions.
        if (connected_) {
            queue_.emplace_back(std::move(subscription));
        }
    }
    wake();
}

std::optional<Token> Client::Core::publish(Message message) {
    Token token = 0;
    {
        const MutexLock lock(mutex_);
        if (ended_ || leaving_ || on_their_way_ >= options_.max_unacknowledged) {
            return std::nullopt;
        }
        queue_.emplace_back(Outgoing{last_token_ + 1, std::move(message)});
        token = ++last_token_;
        ++on_their_way_;
    }
    wake();
    return token;
}

bool Client::Core::wait_unacknowledged(std::size_t count, Clock::time_point deadline) const {
    const MutexLock lock(mutex_);
    while (on_their_way_ > count && !ended_) {
        if (settled_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
            return on_their_way_ <= count;
        }
    }
    return on_their_way_ <= count;
}

void Client::Core::disconnect(milliseconds limit, bool last_will) noexcept {
    leave_with_will_ = last_will;
    leave_deadline_ = (Clock::now() + limit).time_since_epoch().count();
    leaving_ = true;
    wake();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Client::Core::wake() const noexcept {
    const std::uint64_t one = 1;
    // A full counter is readable as well.
    static_cast<void>(!write(wake_.get(), &one, sizeof one));
}

void Client::Core::drain_wake() const noexcept {
    std::uint64_t count = 0;
    static_cast<void>(!read(wake_.get(), &count, sizeof count));
}

void Client::Core::run() {
    std::exception_ptr failure;
    try {
        run_connections();
    } catch (...) {
        failure = std::current_exception();
    }
    connected_ = false;
    {
        const MutexLock lock(mutex_);
        ended_ = true;
        settled_.notify_all();
    }
    if (failure) {
        if (!handlers_.failed) {
            std::rethrow_exception(failure);
        }
        handlers_.failed(failure);
    }
}

void Client::Core::run_connections() {
    while (!leaving_) {
        const Clock::time_point begin = Clock::now();
        Disconnection end = connect_and_serve();
        if (leaving_) {
            return;
        }
        failed_attempts_ = end.was_connected && Clock::now() - begin >= kLasting
                               ? 0
                               : std::min(failed_attempts_ + 1, 16U);
        const milliseconds base = options_.min_pause * (1U << (std::max(failed_attempts_, 1U) - 1));
        end.retry_in = next_pause(std::min(base, options_.max_pause));
        if (handlers_.disconnected) {
            handlers_.disconnected(end);
        }
        pause(end.retry_in);
    }
}

milliseconds Client::Core::next_pause(milliseconds base) {
    std::uniform_int_distribution<milliseconds::rep> part(base.count() * 3 / 4,
                                                          base.count() * 5 / 4);
    return std::clamp(milliseconds(part(random_)), options_.min_pause,
                      std::max(options_.min_pause, options_.max_pause));
}

void Client::Core::pause(milliseconds time) {
    const Clock::time_point end = Clock::now() + time;
    while (!leaving_ && Clock::now() < end) {
        hand_over();
        dispatch();
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        pollfd waited{wake_.get(), POLLIN, 0};
        poll(&waited, 1, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
        drain_wake();
    }
}

Disconnection Client::Core::connect_and_serve() {
    const Clock::time_point connect_deadline = Clock::now() + options_.connect_limit;
    lost_reason_.clear();
    logged_error_.clear();
    refused_ = false;
    transport_connected_ = false;
    Disconnection result;
    result.reason = connect();
    if (result.reason.empty()) {
        result.reason = serve(connect_deadline);
    }
    if (!logged_error_.empty()) {  // Why TLS has failed is only logged.
        result.reason += " (" + logged_error_ + ")";
    }
    result.refused = refused_;
    result.was_connected = connected_;
    if (!transport_connected_) {
        other_family_ = !other_family_;
    }
    lose_connection();
    return result;
}

/// @return why it failed at once; empty when the connection is being made.
std::string Client::Core::connect() {
    // Of a name with several addresses the library tries one that accepts no connection again and
    // again. Every other attempt is therefore bound to IPv4, which leaves out IPv6 addresses.
    const bool bind = other_family_ && !is_address(options_.broker.host);
    mosquitto_string_option(handle_.get(), MOSQ_OPT_BIND_ADDRESS, nullptr);
    const int code = mosquitto_connect_bind_async(
        handle_.get(), options_.broker.host.c_str(), options_.broker.port,
        static_cast<int>(options_.keep_alive.count()), bind ? "0.0.0.0" : nullptr);
    return code == MOSQ_ERR_SUCCESS ? "" : error_string(code, errno);
}

/// Serves the connection until it is lost.
/// @return why.
std::string Client::Core::serve(Clock::time_point connect_deadline) {
    for (;;) {
        const int socket = mosquitto_socket(handle_.get());
        if (socket == -1) {
            break;
        }
        if (leaving_) {
            leave();
            return "disconnected";
        }
        const bool waits = !connected_;
        if (waits && Clock::now() >= connect_deadline) {
            return "the broker does not respond";
        }
        const Clock::time_point tick =
            Clock::now() + (waits && transport_connected_ ? kHandshakeTick : kTick);
        if (poll_socket(socket, waits ? std::min(tick, connect_deadline) : tick)) {
            if (!transport_connected_) {
                std::string error = socket_error(socket);
                if (!error.empty()) {
                    return error;
                }
                transport_connected_ = true;
            }
        }
        if (transport_connected_) {
            // Reading also continues a TLS handshake.
            if (mosquitto_loop_read(handle_.get(), 1) == MOSQ_ERR_SUCCESS) {
                mosquitto_loop_write(handle_.get(), 1);
            }
            mosquitto_loop_misc(handle_.get());
        }
        if (connected_) {
            hand_over();
        }
        dispatch();
    }
    return lost_reason_.empty() ? "the connection was lost" : lost_reason_;
}

/// @return whether the socket has an event.
bool Client::Core::poll_socket(int socket, Clock::time_point deadline) {
    // Until the broker has accepted the connection, only reading is waited for: a handshake that
    // waits for the broker leaves the socket writable, and packets queued.
    const bool write = connected_ ? mosquitto_want_write(handle_.get()) : !transport_connected_;
    pollfd waited[2] = {
        {socket, static_cast<short>(write ? POLLIN | POLLOUT : POLLIN), 0},
        {wake_.get(), POLLIN, 0},
    };
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    poll(waited, 2, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
    drain_wake();
    return waited[0].revents != 0;
}

/// @return the error of a connection that is being made; empty for none.
std::string Client::Core::socket_error(int socket) const {
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
    }
    return error == 0 ? "" : std::system_category().message(error);
}

void Client::Core::hand_over() {
    std::deque<std::variant<Subscription, Outgoing>> taken;
    {
        const MutexLock lock(mutex_);
        if (connected_) {
            taken.swap(queue_);
        } else {
            // Without a connection only what cannot wait for one.
            const auto kept = std::stable_partition(
                queue_.begin(), queue_.end(), [](const std::variant<Subscription, Outgoing>& item) {
                    const Outgoing* const outgoing = std::get_if<Outgoing>(&item);
                    return outgoing != nullptr && outgoing->message.qos > 0;
                });
            std::move(kept, queue_.end(), std::back_inserter(taken));
            queue_.erase(kept, queue_.end());
        }
    }
    for (const auto& item : taken) {
        if (const Subscription* const subscription = std::get_if<Subscription>(&item)) {
            if (connected_) {
                hand_over_subscription(*subscription);
            }
        } else {
            hand_over_message(std::get<Outgoing>(item));
        }
    }
}

void Client::Core::hand_over_subscription(const Subscription& subscription) {
    int options = subscription.retain_as_published ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
    if (!subscription.receive_stored) {
        options |= MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    }
    int id = 0;
    const int code = mosquitto_subscribe_v5(handle_.get(), &id, subscription.filter.c_str(),
                                            subscription.qos, options, nullptr);
    if (code == MOSQ_ERR_SUCCESS) {
        subscribing_[id] = subscription.filter;
    } else if (code == MOSQ_ERR_INVAL || code == MOSQ_ERR_MALFORMED_UTF8 ||
               code == MOSQ_ERR_OVERSIZE_PACKET) {
        events_.emplace_back(Subscribed{subscription.filter, error_string(code, errno)});
    }  // Otherwise the connection is being lost, and the next one subscribes anew.
}

void Client::Core::hand_over_message(const Outgoing& outgoing) {
    const Message& message = outgoing.message;
    if (!connected_) {
        events_.emplace_back(Acknowledgement{outgoing.token, "there is no connection"});
        return;
    }
    int id = 0;
    int code = MOSQ_ERR_SUCCESS;
    std::string reason;
    try {
        PropertyList properties;
        properties.add(message.properties);
        code = mosquitto_publish_v5(
            handle_.get(), &id, message.topic.c_str(), static_cast<int>(message.payload.size()),
            message.payload.data(), message.qos, message.retain, properties.get());
        // The library keeps a message with QoS 1 for the next connection.
        if (message.qos > 0 && (code == MOSQ_ERR_NO_CONN || code == MOSQ_ERR_CONN_LOST)) {
            code = MOSQ_ERR_SUCCESS;
        }
        reason = code == MOSQ_ERR_SUCCESS ? "" : error_string(code, errno);
    } catch (const Error& error) {
        reason = error.what();
    }
    if (reason.empty()) {
        in_flight_[id] = InFlight{outgoing.token, message.qos};
    } else {
        events_.emplace_back(Acknowledgement{outgoing.token, reason});
    }
}

/// Runs the handlers of what the callbacks have noted.
void Client::Core::dispatch() {
    if (exception_) {
        std::rethrow_exception(std::exchange(exception_, nullptr));
    }
    std::vector<Event> events;
    events.swap(events_);
    for (const Event& event : events) {
        handle(event);
    }
}

void Client::Core::handle(const Event& event) {
    if (const Message* const message = std::get_if<Message>(&event)) {
        if (handlers_.message) {
            handlers_.message(*message);
        }
    } else if (const auto* const acknowledgement = std::get_if<Acknowledgement>(&event)) {
        settle(*acknowledgement);
    } else if (const Subscribed* const subscribed = std::get_if<Subscribed>(&event)) {
        if (handlers_.subscribed) {
            handlers_.subscribed(subscribed->filter, subscribed->refusal);
        }
    } else if (handlers_.connected) {
        handlers_.connected(std::get<Connected>(event).session_present);
    }
}

void Client::Core::settle(const Acknowledgement& acknowledgement) {
    {
        const MutexLock lock(mutex_);
        --on_their_way_;
        settled_.notify_all();
    }
    if (handlers_.acknowledged) {
        handlers_.acknowledged(acknowledgement);
    }
}

/// Settles what does not survive the connection. The library sends messages with QoS 1 again.
void Client::Core::lose_connection() {
    {
        const MutexLock lock(mutex_);
        connected_ = false;
    }
    subscribing_.clear();
    for (auto message = in_flight_.begin(); message != in_flight_.end();) {
        if (message->second.qos == 0) {
            events_.emplace_back(Acknowledgement{message->second.token, "the connection was lost"});
            message = in_flight_.erase(message);
        } else {
            ++message;
        }
    }
    dispatch();
}

/// Sends the packet that ends a connection in order, as far as the limit permits.
void Client::Core::leave() {
    const Clock::time_point deadline{Clock::duration(leave_deadline_.load())};
    if (!connected_) {
        return;
    }
    mosquitto_disconnect_v5(
        handle_.get(),
        leave_with_will_ ? MQTT_RC_DISCONNECT_WITH_WILL_MSG : MQTT_RC_NORMAL_DISCONNECTION,
        nullptr);
    for (int socket = mosquitto_socket(handle_.get()); socket != -1;
         socket = mosquitto_socket(handle_.get())) {
        mosquitto_loop_write(handle_.get(), 1);
        if (mosquitto_socket(handle_.get()) == -1 || Clock::now() >= deadline) {
            break;
        }
        pollfd waited{socket, POLLOUT, 0};
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        poll(&waited, 1, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
    }
}

template <class Function>
void Client::Core::note(void* core, Function function) noexcept {
    Core& self = *static_cast<Core*>(core);
    try {
        function(self);
    } catch (...) {  // dispatch() rethrows it, outside the library's frames.
        self.exception_ = std::current_exception();
    }
}

void Client::Core::on_connect(mosquitto* /*handle*/, void* core, int code, int flags,
                              const mosquitto_property* /*properties*/) {
    note(core, [code, flags](Core& self) {
        if (code != 0) {
            self.refused_ = true;
            self.lost_reason_ = mosquitto_reason_string(code);
            return;
        }
        {
            // Under the lock, so that subscribe() either sees the connection or is seen here.
            const MutexLock lock(self.mutex_);
            std::deque<std::variant<Subscription, Outgoing>> queue;
            for (const Subscription& subscription : self.subscriptions_) {
                queue.emplace_back(subscription);
            }
            std::move(self.queue_.begin(), self.queue_.end(), std::back_inserter(queue));
            self.queue_.swap(queue);
            self.connected_ = true;
        }
        self.events_.emplace_back(Connected{(flags & 1) != 0});
    });
}

void Client::Core::on_disconnect(mosquitto* /*handle*/, void* core, int code,
                                 const mosquitto_property* /*properties*/) {
    const int error_number = errno;
    note(core, [code, error_number](Core& self) {
        if (self.lost_reason_.empty()) {
            self.lost_reason_ = error_string(code, error_number);
        }
    });
}

void Client::Core::on_publish(mosquitto* /*handle*/, void* core, int id, int code,
                              const mosquitto_property* /*properties*/) {
    note(core, [id, code](Core& self) {
        const auto found = self.in_flight_.find(id);
        if (found == self.in_flight_.end()) {
            return;
        }
        Acknowledgement acknowledgement{found->second.token, ""};
        if (code >= kFirstErrorReason) {
            acknowledgement.refusal = mosquitto_reason_string(code);
        }
        acknowledgement.no_subscriber = code == MQTT_RC_NO_MATCHING_SUBSCRIBERS;
        self.in_flight_.erase(found);
        self.events_.emplace_back(std::move(acknowledgement));
    });
}

void Client::Core::on_message(mosquitto* /*handle*/, void* core, const mosquitto_message* message,
                              const mosquitto_property* properties) {
    note(core, [message, properties](Core& self) {
        Message received;
        received.topic = message->topic;
        if (message->payloadlen > 0) {
            received.payload.assign(static_cast<const char*>(message->payload),
                                    static_cast<std::size_t>(message->payloadlen));
        }
        received.qos = message->qos;
        received.retain = message->retain;
        received.properties = read_properties(properties);
        self.events_.emplace_back(std::move(received));
    });
}

void Client::Core::on_subscribe(mosquitto* /*handle*/, void* core, int id, int count,
                                const int* granted, const mosquitto_property* /*properties*/) {
    note(core, [id, count, granted](Core& self) {
        const auto found = self.subscribing_.find(id);
        if (found == self.subscribing_.end()) {
            return;
        }
        const bool refused = count < 1 || granted[0] >= kFirstErrorReason;
        Subscribed subscribed{found->second, ""};
        if (refused) {
            subscribed.refusal = count < 1 ? "no response" : mosquitto_reason_string(granted[0]);
        }
        self.subscribing_.erase(found);
        self.events_.emplace_back(std::move(subscribed));
    });
}

void Client::Core::on_log(mosquitto* /*handle*/, void* core, int level, const char* text) {
    if (level == MOSQ_LOG_ERR) {
        note(core, [text](Core& self) { self.logged_error_ = text; });
    }
}

Client::Client(ClientOptions options, Handlers handlers)
    : core_(std::make_unique<Core>(std::move(options), std::move(handlers))) {}
Client::~Client() {
    core_->disconnect(kLeaveLimit, false);
}
void Client::start() {
    core_->start();
}
void Client::subscribe(Subscription subscription) {
    core_->subscribe(std::move(subscription));
}
std::optional<Token> Client::publish(Message message) {
    return core_->publish(std::move(message));
}
bool Client::connected() const {
    return core_->connected();
}
std::size_t Client::unacknowledged() const {
    return core_->unacknowledged();
}
bool Client::wait_unacknowledged(std::size_t count, Clock::time_point deadline) const {
    return core_->wait_unacknowledged(count, deadline);
}
void Client::disconnect(std::chrono::milliseconds limit, bool last_will) noexcept {
    core_->disconnect(limit, last_will);
}

}  // namespace jovu_mqtt
