// SPDX-License-Identifier: Apache-2.0
#include "mqtt/client.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "mqtt/error.h"
#include "posix/files.h"
#include "support/broker.h"
#include "support/wait.h"

using namespace jovu_mqtt;
using testing::AnyOf;
using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

/// What the handlers of a client were called with.
struct Seen {
    int connections = 0;
    bool session_present = false;
    std::vector<Disconnection> disconnections;
    std::vector<Message> messages;
    std::vector<Acknowledgement> acknowledgements;
    std::vector<std::string> refused_filters;
    int subscriptions = 0;
    std::string exception;
};

/// A client that keeps what its handlers were called with.
class Peer {
public:
    explicit Peer(ClientOptions options, bool fails = false)
        : client_(quick(std::move(options)), handlers(fails)) {}

    /// @return whether a value that is true appears among what @p read returns of the peer.
    template <class Condition>
    bool sees(Condition condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, test::kPatience, [&] { return condition(seen_); });
    }
    /// @return what it has seen so far; its handlers go on.
    Seen seen() {
        const std::scoped_lock lock(mutex_);
        return seen_;
    }
    bool connects(int times = 1) {
        return sees([times](const Seen& peer) { return peer.connections >= times; });
    }
    Client& client() { return client_; }

private:
    static ClientOptions quick(ClientOptions options) {
        options.min_pause = 20ms;
        options.max_pause = 100ms;
        return options;
    }
    template <class Change>
    void change(Change change) {
        const std::scoped_lock lock(mutex_);
        change();
        changed_.notify_all();
    }
    Handlers handlers(bool fails) {
        Handlers handlers;
        handlers.connected = [this](bool present) {
            change([&] {
                ++seen_.connections;
                seen_.session_present = present;
            });
        };
        handlers.disconnected = [this](const Disconnection& end) {
            change([&] { seen_.disconnections.push_back(end); });
        };
        handlers.message = [this, fails](const Message& message) {
            if (fails) throw std::runtime_error("handler of " + message.topic);
            change([&] { seen_.messages.push_back(message); });
        };
        handlers.acknowledged = [this](const Acknowledgement& acknowledgement) {
            change([&] { seen_.acknowledgements.push_back(acknowledgement); });
        };
        handlers.subscribed = [this](const std::string& filter, const std::string& refusal) {
            change([&] {
                ++seen_.subscriptions;
                if (!refusal.empty()) seen_.refused_filters.push_back(filter + ": " + refusal);
            });
        };
        handlers.failed = [this](std::exception_ptr failure) {
            change([&] {
                try {
                    std::rethrow_exception(failure);
                } catch (const std::exception& error) {
                    seen_.exception = error.what();
                }
            });
        };
        return handlers;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Seen seen_;
    Client client_;
};

ClientOptions options_for(const std::string& url, const std::string& id) {
    ClientOptions options;
    options.broker = parse_broker_url(url);
    options.client_id = id;
    return options;
}

std::vector<std::string> payloads(const Seen& peer) {
    std::vector<std::string> all;
    for (const Message& message : peer.messages)
        all.push_back(message.payload);
    return all;
}

/// A listener that accepts connections in the kernel, and says and reads nothing.
class SilentListener {
public:
    SilentListener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const plain = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_.get(), plain, size) != 0 || listen(fd_.get(), 16) != 0 ||
            getsockname(fd_.get(), plain, &size) != 0) {
            throw std::runtime_error("no listener");
        }
        port_ = ntohs(address.sin_port);
    }
    std::string url(const char* scheme) const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_);
    }

private:
    jovu_cli::FileDescriptor fd_;
    int port_ = 0;
};

std::size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(Client, CarriesMessagesWithTheirProperties) {
    const test::Broker broker;
    Peer receiver(options_for(broker.url(), "receiver"));
    Peer sender(options_for(broker.url(), "sender"));
    // With a subscription that comes before the connection, and one that comes after it.
    receiver.client().subscribe({"early/+"});
    receiver.client().start();
    ASSERT_TRUE(receiver.connects());
    receiver.client().subscribe({"late/#", 1, true, false});
    ASSERT_TRUE(receiver.sees([](const Seen& peer) { return peer.subscriptions == 2; }));
    sender.client().start();

    Message request{"early/x", std::string("a\0b", 3)};
    request.properties = {"responses/me", std::string("\0\xff", 2), "application/json", 60s};
    sender.client().publish(request);
    sender.client().publish({"late/y", "kept", 1, true});
    sender.client().publish({"late/z", "", 0});
    ASSERT_TRUE(receiver.sees([](const Seen& peer) { return peer.messages.size() == 3; }));
    const Message got = receiver.seen().messages[0];
    EXPECT_EQ(got.topic, request.topic);
    EXPECT_EQ(got.payload, request.payload);
    EXPECT_EQ(got.properties.response_topic, "responses/me");
    EXPECT_EQ(got.properties.correlation_data, request.properties.correlation_data);
    EXPECT_EQ(got.properties.content_type, "application/json");
    EXPECT_THAT(got.properties.expiry, AnyOf(60s, 59s));
    EXPECT_FALSE(got.retain);
    EXPECT_TRUE(receiver.seen().messages[1].retain);  // As it was published.
    EXPECT_EQ(receiver.seen().messages[2].qos, 0);
    EXPECT_TRUE(sender.client().wait_unacknowledged(0, Clock::now() + test::kPatience));

    sender.client().publish({"nobody/listens", "x"});
    ASSERT_TRUE(sender.sees([](const Seen& peer) { return peer.acknowledgements.size() == 4; }));
    EXPECT_TRUE(sender.seen().acknowledgements[3].no_subscriber);
    EXPECT_FALSE(sender.seen().acknowledgements[0].no_subscriber);
    EXPECT_EQ(sender.seen().acknowledgements[0].refusal, "");

    // What the broker has stored is received by those who want it.
    Peer late(options_for(broker.url(), "late"));
    late.client().subscribe({"late/#"});
    late.client().start();
    ASSERT_TRUE(late.sees([](const Seen& peer) { return peer.messages.size() == 1; }));
    EXPECT_TRUE(late.seen().messages[0].retain);
    EXPECT_EQ(late.seen().messages[0].payload, "kept");
}

TEST(Client, SurvivesARestartOfTheBroker) {
    test::Broker broker;
    Peer receiver(options_for(broker.url(), "receiver"));
    Peer sender(options_for(broker.url(), "sender"));
    receiver.client().subscribe({"t"});
    receiver.client().start();
    sender.client().start();
    ASSERT_TRUE(receiver.connects() && sender.connects());
    ASSERT_TRUE(receiver.sees([](const Seen& peer) { return peer.subscriptions == 1; }));
    broker.end();
    const auto refused = [](const Seen& peer) {
        return peer.disconnections.size() >= 3 &&
               peer.disconnections.back().reason == "Connection refused";
    };
    ASSERT_TRUE(sender.sees(refused) && receiver.sees(refused));
    EXPECT_TRUE(sender.seen().disconnections.front().was_connected);
    EXPECT_FALSE(sender.seen().disconnections.back().was_connected);
    EXPECT_FALSE(sender.seen().disconnections.back().refused);
    EXPECT_FALSE(sender.client().connected());

    ASSERT_TRUE(sender.client().publish({"t", "lost", 0}));
    ASSERT_TRUE(sender.sees([](const Seen& peer) { return peer.acknowledgements.size() == 1; }));
    EXPECT_THAT(sender.seen().acknowledgements[0].refusal, HasSubstr("no connection"));
    EXPECT_FALSE(sender.client().wait_unacknowledged(0, Clock::now()) &&
                 sender.client().publish({"t", "kept"}) == std::nullopt);
    const std::size_t descriptors = open_descriptors();
    const std::size_t attempts = sender.seen().disconnections.size();
    ASSERT_TRUE(
        sender.sees([&](const Seen& peer) { return peer.disconnections.size() > attempts + 5; }));
    EXPECT_LE(open_descriptors(), descriptors + 4);

    broker.start();
    ASSERT_TRUE(receiver.connects(2));
    ASSERT_TRUE(receiver.sees([](const Seen& peer) { return peer.subscriptions == 2; }));
    ASSERT_TRUE(sender.client().publish({"t", "after"}));
    ASSERT_TRUE(receiver.sees([](const Seen& peer) {
        return !peer.messages.empty() && peer.messages.back().payload == "after";
    }));
    EXPECT_TRUE(sender.client().wait_unacknowledged(0, Clock::now() + test::kPatience));
}

TEST(Client, LosesNoMessageOverAnyNumberOfConnections) {
    test::Broker broker("allow_anonymous true\n");
    ClientOptions options = options_for(broker.url(), "receiver");
    options.clean_start = false;
    options.session_expiry = 1h;
    options.max_unacknowledged = 5;
    Peer peer(options);
    peer.client().subscribe({"t"});
    peer.client().start();
    ASSERT_TRUE(peer.connects());
    int next = 0;
    // Each round kills the broker while messages are on their way.
    for (int round = 0; round < 4; ++round) {
        ASSERT_TRUE(test::eventually([&] { return peer.client().connected(); }));
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(peer.client().wait_unacknowledged(4, Clock::now() + test::kPatience));
            ASSERT_TRUE(peer.client().publish({"t", std::to_string(next++)}));
        }
        broker.end();
        // The bound holds without a broker.
        while (peer.client().publish({"t", std::to_string(next)}))
            ++next;
        EXPECT_EQ(peer.client().unacknowledged(), 5U);
        broker.start();
    }
    EXPECT_TRUE(peer.client().wait_unacknowledged(0, Clock::now() + test::kPatience));
    EXPECT_TRUE(peer.sees([next](const Seen& one) {
        return one.acknowledgements.size() == static_cast<std::size_t>(next);
    }));
    for (const Acknowledgement& acknowledgement : peer.seen().acknowledgements) {
        EXPECT_EQ(acknowledgement.refusal, "");
    }
}

TEST(Client, KeepsItsSessionWhenTheBrokerDoes) {
    const test::Broker broker;
    ClientOptions options = options_for(broker.url(), "keeper");
    options.clean_start = false;
    options.session_expiry = 1h;
    {
        Peer peer(options);
        peer.client().subscribe({"t"});
        peer.client().start();
        ASSERT_TRUE(peer.sees([](const Seen& one) { return one.subscriptions == 1; }));
        EXPECT_FALSE(peer.seen().session_present);
    }
    Peer sender(options_for(broker.url(), "sender"));
    sender.client().start();
    ASSERT_TRUE(sender.client().publish({"t", "meanwhile"}));
    ASSERT_TRUE(sender.client().wait_unacknowledged(0, Clock::now() + test::kPatience));
    Peer peer(options);
    peer.client().start();
    ASSERT_TRUE(peer.sees([](const Seen& one) { return one.messages.size() == 1; }));
    EXPECT_TRUE(peer.seen().session_present);
    EXPECT_EQ(peer.seen().messages[0].payload, "meanwhile");
}

TEST(Client, LeavesAWillUnlessItLeavesInOrder) {
    const test::Broker broker;
    Peer watcher(options_for(broker.url(), "watcher"));
    watcher.client().subscribe({"state"});
    watcher.client().start();
    ASSERT_TRUE(watcher.sees([](const Seen& peer) { return peer.subscriptions == 1; }));
    ClientOptions options = options_for(broker.url(), "same");
    options.last_will = Message{"state", "died although it had left", 1, true};
    {
        Peer leaves(options);
        leaves.client().start();
        ASSERT_TRUE(leaves.connects());
        leaves.client().publish({"state", "left", 1, true});
        ASSERT_TRUE(leaves.client().wait_unacknowledged(0, Clock::now() + test::kPatience));
    }
    options.last_will->payload = "died";
    Peer dies(options);
    dies.client().start();
    ASSERT_TRUE(dies.connects());
    // A second client with the same id has the broker end the first one's connection.
    options.last_will.reset();
    Peer takes(options);
    takes.client().start();
    ASSERT_TRUE(watcher.sees([](const Seen& peer) { return peer.messages.size() >= 2; }));
    EXPECT_EQ(payloads(watcher.seen())[0], "left");
    EXPECT_EQ(payloads(watcher.seen())[1], "died");
    ASSERT_TRUE(dies.sees([](const Seen& peer) { return !peer.disconnections.empty(); }));
    EXPECT_TRUE(dies.seen().disconnections[0].was_connected);
}

TEST(Client, TellsWhatTheBrokerRefuses) {
    const test::TemporaryFolder folder;
    const std::string rules = folder.write("acl", "user me\ntopic readwrite mine/#\n");
    const std::string passwords = folder.path() + "/passwords";
    ASSERT_EQ(std::system(("mosquitto_passwd -b -c " + passwords + " me right").c_str()), 0);
    const test::Broker broker("password_file " + passwords + "\nacl_file " + rules + "\n");

    ClientOptions options = options_for(broker.url(), "refused");
    options.user = "me";
    options.password = "wrong";
    Peer refused(options);
    refused.client().start();
    ASSERT_TRUE(refused.sees([](const Seen& peer) { return peer.disconnections.size() >= 2; }));
    EXPECT_EQ(refused.seen().disconnections[0].reason, "Not authorized");
    EXPECT_TRUE(refused.seen().disconnections[0].refused);
    EXPECT_FALSE(refused.seen().disconnections[0].was_connected);

    options.password = "right";
    options.client_id = "accepted";
    Peer accepted(options);
    accepted.client().subscribe({"a/#/b"});
    accepted.client().start();
    accepted.client().publish({"others/x", "x"});
    accepted.client().publish({"mine/+", "x"});
    ASSERT_TRUE(accepted.sees([](const Seen& peer) {
        return peer.acknowledgements.size() == 2 && peer.refused_filters.size() == 1;
    }));
    for (const Acknowledgement& end : accepted.seen().acknowledgements)
        EXPECT_NE(end.refusal, "");
    EXPECT_EQ(accepted.seen().connections, 1);
}

TEST(Client, EndsInTimeWhenTheBrokerHangs) {
    const SilentListener listener;
    for (const char* const scheme : {"mqtt", "mqtts"}) {
        ClientOptions options = options_for(listener.url(scheme), "patient");
        options.connect_limit = 200ms;
        Peer peer(options);
        peer.client().start();
        ASSERT_TRUE(peer.sees([](const Seen& one) { return one.disconnections.size() >= 2; }));
        EXPECT_EQ(peer.seen().disconnections[0].reason, "the broker does not respond") << scheme;
    }
    // One that accepts the connection and then stops reading.
    const test::Broker broker;
    ClientOptions options = options_for(broker.url(), "stuck");
    options.keep_alive = 5s;
    Peer peer(options);
    peer.client().start();
    ASSERT_TRUE(peer.connects());
    broker.signal(SIGSTOP);
    const std::string large(1U << 20U, 'x');
    for (int i = 0; i < 16; ++i)
        peer.client().publish({"t", large, i % 2});
    EXPECT_FALSE(peer.client().wait_unacknowledged(0, Clock::now() + 50ms));
    const auto begin = Clock::now();
    peer.client().disconnect(300ms);
    EXPECT_LT(Clock::now() - begin, 20s);
    EXPECT_FALSE(peer.client().publish({"t", "too late"}));
}

TEST(Client, NoticesABrokerThatNoLongerResponds) {
    const test::Broker broker;
    ClientOptions options = options_for(broker.url(), "alert");
    options.keep_alive = 5s;
    Peer peer(options);
    peer.client().start();
    ASSERT_TRUE(peer.connects());
    broker.signal(SIGSTOP);
    ASSERT_TRUE(peer.sees([](const Seen& one) { return !one.disconnections.empty(); }));
    EXPECT_TRUE(peer.seen().disconnections[0].was_connected);
    EXPECT_THAT(peer.seen().disconnections[0].reason, HasSubstr("no longer responds"));
    broker.signal(SIGCONT);
    EXPECT_TRUE(peer.connects(2));
}

TEST(Client, HandsOutAnExceptionOfAHandler) {
    const test::Broker broker;
    Peer peer(options_for(broker.url(), "thrower"), true);
    peer.client().subscribe({"t"});
    peer.client().start();
    ASSERT_TRUE(peer.sees([](const Seen& one) { return one.subscriptions == 1; }));
    peer.client().publish({"t", "x"});
    ASSERT_TRUE(peer.sees([](const Seen& one) { return !one.exception.empty(); }));
    EXPECT_EQ(peer.seen().exception, "handler of t");
    EXPECT_FALSE(peer.client().publish({"t", "x"}));
    EXPECT_FALSE(peer.client().connected());
}

/// Certificates of a test: an authority, a broker and a client, and another authority.
class Certificates {
public:
    Certificates() {
        const std::string script =
            "cd " + folder_.path() +
            " && for ca in ca other; do openssl req -x509 -newkey ec -pkeyopt "
            "ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=$ca -keyout $ca.key -out $ca.pem; "
            "done && for who in broker client; do openssl req -newkey ec -pkeyopt "
            "ec_paramgen_curve:P-256 -nodes -subj /CN=$who -keyout $who.key -out $who.csr && "
            "printf 'subjectAltName=IP:" +
            test::own_loopback_address() +
            "' >$who.ext && openssl x509 -req -in $who.csr -CA ca.pem -CAkey ca.key "
            "-CAcreateserial -days 2 -extfile $who.ext -out $who.pem || exit 1; done";
        if (std::system(("{ " + script + "; } 2>/dev/null").c_str()) != 0) {
            throw std::runtime_error("openssl has failed");
        }
    }
    std::string operator[](const std::string& name) const { return folder_.path() + "/" + name; }

private:
    test::TemporaryFolder folder_;
};

TEST(Client, ChecksCertificates) {
    const Certificates files;
    const test::Broker broker("cafile " + files["ca.pem"] + "\ncertfile " + files["broker.pem"] +
                              "\nkeyfile " + files["broker.key"] +
                              "\nrequire_certificate true\nallow_anonymous true\n");
    ClientOptions options =
        options_for("mqtts://" + broker.host() + ":" + std::to_string(broker.port()), "tls");
    const ClientOptions bare = options;
    options.ca_file = files["ca.pem"];
    options.certificate_file = files["client.pem"];
    options.key_file = files["client.key"];
    Peer trusted(options);
    trusted.client().subscribe({"t"});
    trusted.client().start();
    const std::string large(300'000, 'x');
    trusted.client().publish({"t", large});
    ASSERT_TRUE(trusted.sees([](const Seen& peer) { return peer.messages.size() == 1; }));
    EXPECT_EQ(trusted.seen().messages[0].payload, large);

    struct Case {
        const char* name;
        ClientOptions options;
        const char* reason;
    };
    std::vector<Case> cases{{"system", bare, "certificate verify failed"},
                            {"other", options, "certificate verify failed"},
                            {"no client certificate", bare, ""},
                            {"plain text", options, ""}};
    cases[1].options.ca_file = files["other.pem"];
    cases[2].options.ca_file = files["ca.pem"];
    cases[3].options.broker.tls = false;
    for (Case& one : cases) {
        one.options.client_id = "distrusted";
        Peer peer(one.options);
        peer.client().start();
        ASSERT_TRUE(peer.sees([](const Seen& each) { return !each.disconnections.empty(); }));
        EXPECT_THAT(peer.seen().disconnections[0].reason, HasSubstr(one.reason)) << one.name;
        EXPECT_EQ(peer.seen().connections, 0) << one.name;
    }
    // The certificate is for the address only.
    options.broker.host = "localhost";
    const test::Broker plain;
    options.ca_file = "/nonexistent";
    EXPECT_THROW(Client(options, {}), Error);
    options.ca_file = files["ca.pem"];
    options.key_file.clear();
    EXPECT_THROW(Client(options, {}), Error);
}

}  // namespace
