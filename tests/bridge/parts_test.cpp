// SPDX-License-Identifier: Apache-2.0
//
// What makes requests exactly-once and the queue towards the broker bounded, without either.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "bridge/availability.h"
#include "bridge/journal.h"
#include "bridge/outbox.h"
#include "bridge/request.h"
#include "bridge_test.h"
#include "firmware/firmware_commands.h"

namespace jovu_bridge {
namespace {

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
    outbox.forget("s");
    outbox.connected();
    outbox.acknowledged({6, "", false});
    EXPECT_THAT(connection.sent.back(), "s=5");
    outbox.acknowledged({8, "", false});
    outbox.disconnected();
    outbox.connected();
    outbox.acknowledged({7, "", false});
    EXPECT_THAT(std::vector<std::string>(connection.sent.begin() + 6, connection.sent.end()),
                ElementsAre("other=1", "s=5", "other=1"));

    // Two long responses are too many.
    outbox.disconnected();
    const std::uint64_t lost = outbox.lost();
    outbox.respond({"r", ""}, std::string(900, 'x'), true);
    outbox.respond({"r", ""}, std::string(900, 'y'), true);
    EXPECT_EQ(outbox.lost(), lost + 1);
}

TEST(Availability, FollowsADeviceAmongBridges) {
    Metrics metrics("b", "1");
    Connection connection;
    Outbox outbox(
        {}, [&](jovu_mqtt::Message m) { return connection.take(std::move(m)); }, metrics);
    Log log(-1, false);
    Availability here(outbox, log, jovu_mqtt::Topics(), "b1");
    outbox.connected();
    const auto says = [&](const std::string& bridge, const std::string& state, bool stored) {
        here.receive("S", R"({"bridge":")" + bridge + R"(","state":")" + state + "\"}", stored);
    };
    /// @return what was published since the last call, as "online" or "offline", each with a space.
    std::size_t seen = 0;
    const auto published = [&] {
        std::string states;
        for (; seen < connection.sent.size(); ++seen) {
            outbox.acknowledged({seen + 1, "", false});
            states +=
                connection.sent[seen].find("online") != std::string::npos ? "online " : "offline ";
        }
        return states;
    };
    // What an earlier run left, unless another bridge has it by now; a forgery is ignored.
    for (const bool moved : {false, true}) {
        says("b1", "online", true);
        says("b1", "online", false);
        if (moved) says("b2", "online", false);
        here.correct();
        EXPECT_EQ(published(), moved ? "" : "offline ");
    }
    here.receive("S", "[1]", true);
    here.receive("S", R"({"bridge":1,"state":"online"})", true);

    // Moved here: the other bridge notices the leaving last.
    here.connected("S");
    says("b2", "offline", false);
    EXPECT_EQ(published(), "online online ");
    EXPECT_EQ(here.rival("S"), "");

    // A stored value is of a bridge that was killed. Another controller of the same name is told
    // once, so that two bridges do not tell each other for ever.
    says("b2", "online", true);
    EXPECT_EQ(here.rival("S"), "");
    for (int i = 0; i < 3; ++i)
        says("b2", "online", false);
    EXPECT_EQ(here.rival("S"), "b2");
    EXPECT_EQ(published(), "online ");
    here.disconnected("S", "unplugged");
    EXPECT_TRUE(here.elsewhere("S"));
    here.connected("S");
    EXPECT_EQ(here.rival("S"), "b2");
    here.receive_bridge("b3", R"({"state":"offline"})");
    EXPECT_EQ(here.rival("S"), "b2");
    here.receive_bridge("b2", R"({"state":"offline"})");
    EXPECT_EQ(here.rival("S"), "");
    EXPECT_EQ(published(), "offline online ");

    // Moved away: the other bridge alone may know how a request ended, even when it is gone.
    here.disconnected("S", "unplugged");
    EXPECT_FALSE(here.elsewhere("S"));
    says("b2", "online", false);
    EXPECT_TRUE(here.elsewhere("S"));
    here.receive_bridge("b2", R"({"state":"offline"})");
    EXPECT_TRUE(here.elsewhere("S"));
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
