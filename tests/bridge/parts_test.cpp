// SPDX-License-Identifier: Apache-2.0
//
// What makes requests exactly-once and the queue towards the broker bounded, without either.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "bridge/availability.h"
#include "bridge/journal.h"
#include "bridge/outbox.h"
#include "bridge/request.h"
#include "bridge_test.h"
#include "firmware/firmware_commands.h"

namespace jovu_bridge {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using State = Journal::State;

/// @return why a journal cannot be opened.
std::string problem_of(const std::string& folder) try {
    const Journal journal(folder, {});
    return "none";
} catch (const JournalError& error) {
    return error.what();
}

TEST(Journal, KeepsWhatAKilledProcessHadBegun) {
    const TemporaryFolder folder;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        Journal journal(folder.path(""), {});
        journal.start("A", "done", "d1");
        journal.finish("A", "done", "response");
        journal.start("A", "begun", "d2");
        static_cast<void>(!write(ready[1], "x", 1));
        pause();
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_THAT(problem_of(folder.path("")), HasSubstr("another jovu-bridge uses"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    Journal journal(folder.path(""), {});
    EXPECT_EQ(journal.find("A", "done").state, State::done);
    EXPECT_EQ(journal.find("A", "done").response, "response");
    EXPECT_EQ(journal.find("A", "begun").state, State::started);
    EXPECT_EQ(journal.find("A", "begun").digest, "d2");
    EXPECT_EQ(journal.find("B", "begun").state, State::absent);
    EXPECT_THROW(journal.start("A", "begun", "d2"), JournalError);
    journal.start("B", "begun", "d3");
    EXPECT_EQ(journal.size().entries, 3U);
}

TEST(Journal, RefusesDatabasesThatItCannotTrust) {
    const struct {
        const char* damage;  ///< A shell command, in the folder.
        const char* problem;
    } rows[] = {
        {"head -c 8192 /dev/urandom >journal.sqlite", "not a database"},
        {"mkdir journal.sqlite", "directory"},
        {"sqlite3 journal.sqlite 'PRAGMA user_version=2'", "of this version"},
        {"sqlite3 journal.sqlite 'PRAGMA application_id=7'", "of this version"},
        {"sqlite3 journal.sqlite 'CREATE TABLE requests(number)'", "journal.sqlite"},
        {"printf XXXXXXXXXXXXXXXX | dd of=journal.sqlite bs=1 seek=4096 conv=notrunc status=none",
         "damaged"},
    };
    for (const auto& row : rows) {
        const TemporaryFolder folder;
        if (std::string(row.problem) == "damaged") {
            Journal journal(folder.path(""), {});
            journal.start("A", "1", "d");
        }
        ASSERT_EQ(std::system(("cd " + folder.path("") + " && " + row.damage).c_str()), 0);
        EXPECT_THAT(problem_of(folder.path("")), HasSubstr(row.problem)) << row.damage;
    }
}

TEST(Journal, RemovesTheOldestEntries) {
    const TemporaryFolder folder;
    Journal journal(folder.path(""), {std::chrono::hours(1), 10});
    for (int i = 0; i < 502; ++i) {
        journal.start("A", std::to_string(i), "d");
        if (i != 0) {
            journal.finish("A", std::to_string(i), "r");
        }
    }
    EXPECT_LE(journal.size().entries, 20U);
    EXPECT_EQ(journal.find("A", "1").state, State::absent);
    // What is in progress stays, however long ago it began.
    EXPECT_EQ(journal.find("A", "0").state, State::started);
    EXPECT_EQ(journal.find("A", "501").state, State::done);
}

/// A connection that keeps what it is given.
struct Connection {
    std::optional<jovu_mqtt::Token> take(jovu_mqtt::Message message) {
        if (full) {
            return std::nullopt;
        }
        sent.push_back(message.topic + "=" + message.payload);
        return sent.size();
    }
    std::vector<std::string> sent;
    bool full = false;
};

TEST(Outbox, KeepsTheNewestStatesAndTheLastResponses) {
    Metrics metrics("b", "1");
    Connection connection;
    Outbox outbox(
        {2, 2, 1000}, [&](jovu_mqtt::Message m) { return connection.take(std::move(m)); }, metrics);
    outbox.state("s", "1");
    outbox.state("s", "2");
    for (const char* const text : {"1", "2", "3"}) {
        outbox.respond({"r", ""}, text, true);
    }
    outbox.respond({"r", ""}, "progress", false);
    EXPECT_FALSE(outbox.samples("t", "0"));
    EXPECT_EQ(outbox.lost(), 1U);
    outbox.connected();
    EXPECT_THAT(connection.sent, ElementsAre("r=2", "r=3", "s=2"));

    // A value waits until the broker has the one before, and only the newest waits.
    outbox.state("s", "3");
    outbox.state("s", "4");
    EXPECT_EQ(connection.sent.size(), 3U);
    outbox.acknowledged({3, "", false});
    EXPECT_EQ(connection.sent.back(), "s=4");
    outbox.acknowledged({4, "", false});

    // After a reconnection the states are sent anew, and what the connection refused.
    outbox.disconnected();
    connection.full = true;
    outbox.connected();
    outbox.respond({"r", ""}, "4", true);
    EXPECT_EQ(connection.sent.size(), 4U);
    connection.full = false;
    outbox.acknowledged({1, "", false});
    EXPECT_THAT(connection.sent, ElementsAre("r=2", "r=3", "s=2", "s=4", "r=4", "s=4"));

    // What is forgotten is sent once more if it waits, and not at the next connection.
    outbox.disconnected();
    outbox.state("s", "5");
    outbox.state("other", "1");
    outbox.state("s/more", "1");
    outbox.forget("s", "s");  // Without a connection, what waits but for "s" may be out of date.
    outbox.connected();
    outbox.acknowledged({6, "", false});
    EXPECT_THAT(connection.sent.back(), "s=5");
    outbox.acknowledged({8, "", false});
    outbox.disconnected();
    outbox.connected();
    outbox.acknowledged({7, "", false});
    outbox.again("o");
    outbox.acknowledged({9, "", false});
    EXPECT_THAT(std::vector<std::string>(connection.sent.begin() + 6, connection.sent.end()),
                ElementsAre("other=1", "s=5", "other=1", "other=1"));

    // Two long responses are too many.
    outbox.disconnected();
    const std::uint64_t lost = outbox.lost();
    outbox.respond({"r", ""}, std::string(900, 'x'), true);
    outbox.respond({"r", ""}, std::string(900, 'y'), true);
    EXPECT_EQ(outbox.lost(), lost + 1);
}

/// Bridges that have a device of one name, or had it, and the broker between them.
class Bridges {
public:
    explicit Bridges(int count) {
        for (int i = 1; i <= count; ++i) {
            bridges_.push_back(std::make_unique<Bridge>(*this, "b" + std::to_string(i)));
        }
    }
    void connected(int number) { bridge(number).availability.connected("S"); }
    void disconnected(int number) { bridge(number).availability.disconnected("S", "unplugged"); }
    /// A bridge vanishes, and its last will is published.
    void vanish(int number) {
        for (const auto& each : bridges_) {
            each->availability.receive_bridge(bridge(number).name, R"({"state":"offline"})");
        }
        bridge(number).listens = false;
    }
    void reconnect(int number) {
        bridge(number).listens = true;
        bridge(number).outbox.disconnected();
        bridge(number).availability.reconnected(now_);
        bridge(number).outbox.connected();
    }
    /// Lets a time pass that is long enough for bridges to contradict.
    void settle() {
        now_ += 1min;
        for (const auto& each : bridges_) {
            each->availability.settle(now_, true);
        }
    }

    /// Delivers what is published, and what is published thereupon.
    /// @return what each bridge does with a request: refuse, carry out or be silent, as "rcs"; "!"
    ///     when the bridges do not stop publishing.
    std::string roles() {
        const std::size_t most = seen_ + 100;
        for (; seen_ < topic_.size() && seen_ < most; ++seen_) {
            const auto [from, payload] = topic_[seen_];
            for (const auto& each : bridges_) {
                if (each->listens && each->availability.receive("S", payload, false)) {
                    each->outbox.again("jovu/devices/S/");
                }
            }
            from->outbox.acknowledged({seen_ + 1, "", false});
        }
        std::string roles = seen_ == most ? "!" : "";
        for (const auto& each : bridges_) {
            roles += !each->availability.rival("S").empty() ? 'r'
                     : each->availability.elsewhere("S")    ? 's'
                                                            : 'c';
        }
        return roles;
    }
    /// @return what the broker has stored, as "b1 online".
    std::string stored() const {
        const auto value = nlohmann::json::parse(topic_.back().second);
        return value["bridge"].get<std::string>() + " " + value["state"].get<std::string>();
    }
    Availability& availability(int number) { return bridge(number).availability; }

private:
    struct Bridge {
        Bridge(Bridges& all, std::string its_name)
            : name(std::move(its_name)),
              outbox(
                  {},
                  [this, &all](const jovu_mqtt::Message& message) {
                      all.topic_.emplace_back(this, message.payload);
                      return std::optional<jovu_mqtt::Token>(all.topic_.size());
                  },
                  metrics),
              availability(outbox, log, jovu_mqtt::Topics(), name) {
            outbox.connected();
        }
        const std::string name;
        bool listens = true;
        Metrics metrics{"b", "1"};
        Log log{-1, false};
        Outbox outbox;
        Availability availability;
    };
    Bridge& bridge(int number) { return *bridges_.at(static_cast<std::size_t>(number) - 1); }

    std::vector<std::pair<Bridge*, std::string>> topic_;
    std::size_t seen_ = 0;
    Availability::Clock::time_point now_ = Availability::Clock::now();
    std::vector<std::unique_ptr<Bridge>> bridges_;
};

TEST(Availability, OneBridgeRespondsWhereverADeviceIs) {
    Bridges moved(2);
    moved.connected(1);
    EXPECT_EQ(moved.roles(), "cc");  // b2 has never had it: it is asked nothing.
    moved.disconnected(1);
    moved.connected(2);
    EXPECT_EQ(moved.roles(), "sc");
    moved.vanish(2);
    EXPECT_EQ(moved.roles(), "sc") << "b2 alone knows how requests ended";
    moved.reconnect(2);
    moved.connected(1);  // b2 notices the leaving last.
    EXPECT_EQ(moved.roles(), "rr");
    moved.disconnected(2);
    EXPECT_EQ(moved.roles(), "cs");
    EXPECT_EQ(moved.stored(), "b1 online");

    Bridges rivals(3);
    for (int i = 1; i <= 3; ++i) {
        rivals.connected(i);
        static_cast<void>(rivals.roles());
    }
    EXPECT_EQ(rivals.roles(), "rrr");
    rivals.disconnected(3);
    EXPECT_EQ(rivals.roles(), "rrs");
    for (int i = 1; i <= 3; ++i)
        rivals.reconnect(i);  // The broker was restarted.
    EXPECT_EQ(rivals.roles(), "rrs");
    rivals.settle();
    EXPECT_EQ(rivals.roles(), "rrs");
    rivals.reconnect(1);  // And again, and b2 does not come back.
    EXPECT_EQ(rivals.roles().substr(0, 1), "r");
    rivals.settle();
    EXPECT_EQ(rivals.roles().substr(0, 1), "c");
    rivals.vanish(2);
    rivals.reconnect(2);
    EXPECT_EQ(rivals.roles(), "rrs");
    rivals.vanish(1);
    EXPECT_EQ(rivals.roles().substr(1), "cs");

    Bridges unplugged(2);  // Both at the same moment.
    unplugged.connected(1);
    unplugged.connected(2);
    EXPECT_EQ(unplugged.roles(), "rr");
    unplugged.disconnected(1);
    unplugged.disconnected(2);
    EXPECT_EQ(unplugged.roles(), "sc");
    EXPECT_EQ(unplugged.stored(), "b2 offline");
}

TEST(Availability, CorrectsWhatAnEarlierRunHasLeft) {
    const std::string online = R"({"bridge":"b1","state":"online"})";
    const std::string deep(4000, '[');
    const struct {
        std::vector<std::pair<std::string, bool>> messages;  ///< And whether each was stored.
        bool corrects;
    } rows[] = {
        {{{online, true}}, true},
        {{{online, false}}, false},  // Not what the broker had: a forgery.
        {{{online, true}, {R"({"bridge":"b2","state":"online"})", false}}, false},
        {{{online + std::string(4096, ' '), true}}, false},
        {{{"[1]", true}, {R"({"bridge":1,"state":"online"})", true}, {deep, true}, {"", true}},
         false},
    };
    for (const auto& row : rows) {
        Metrics metrics("b", "1");
        Connection connection;
        Outbox outbox(
            {}, [&](jovu_mqtt::Message m) { return connection.take(std::move(m)); }, metrics);
        Log log(-1, false);
        Availability here(outbox, log, jovu_mqtt::Topics(), "b1");
        outbox.connected();
        for (const auto& [payload, stored] : row.messages)
            here.receive("S", payload, stored);
        here.settle(Availability::Clock::now(), false);
        EXPECT_TRUE(connection.sent.empty());
        here.settle(Availability::Clock::now(), true);
        EXPECT_EQ(connection.sent.size(), row.corrects ? 1U : 0U) << row.messages[0].first;
    }
}

TEST(Request, ReadingCommandsAreCommandsThatSetNothing) {
    int reading = 0;
    for (const jovu_cli::FirmwareCommand& command : jovu_cli::firmware_commands()) {
        reading += is_reading(command.name) ? 1 : 0;
        for (const char* const part : {"set", "write", "start", "stop", "turn", "enable", "process",
                                       "connect", "save", "initiate", "put_idle", "duty", "led"}) {
            const bool changes = command.name.find(part) != std::string_view::npos &&
                                 command.name.find("are_network") == std::string_view::npos;
            EXPECT_FALSE(changes && is_reading(command.name)) << command.name;
        }
    }
    EXPECT_EQ(reading, 27) << "a name among the reading commands is none of a command";
}

}  // namespace
}  // namespace jovu_bridge
