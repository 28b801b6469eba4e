// SPDX-License-Identifier: Apache-2.0

/// @file
/// Print jobs: sent, followed, refused, cancelled.

#include <csignal>

#include "cli_test.h"

namespace test {
namespace {

constexpr std::size_t kSize = 123456;

class Push : public testing::Test {
protected:
    json job() const { return stats(device_)["job"]; }
    int requests_of(const char* type) const { return job()["requests"].value(type, 0); }
    void fault(const std::string& what) const { sim("fault " + name(device_) + " " + what); }

    const JovuDeviceAddress device_ = plug();
    const TemporaryFile file_{"job.gcode", job_content(kSize)};
    const std::string push_ = "push " + file_.path();
};

TEST_F(Push, IsFollowedToItsEnd) {
    const Ended ended = jovu(push_ + " --wait");
    EXPECT_THAT(
        ended,
        Exits(0, ": 100 %, 123456 of 123456 bytes\naccepted by 1:2 serial JVS001002: job job-1"));
    EXPECT_THAT(ended.out, ContainsRegex("(\njob [0-9]+ %: printing [^\n]*){2}"));
    EXPECT_THAT(ended, Exits(0, "\nfinished after "));
    EXPECT_THAT(ended.out, StartsWith("sending " + file_.path() + ": 0 %, 0 of 123456 bytes\n"));
    EXPECT_LT(std::count(ended.out.begin(), ended.out.end(), '\n'), 40);
    EXPECT_EQ(job()["received"], kSize);
    EXPECT_EQ(job()["verified"], true);
    EXPECT_EQ(job()["finished"], 1);

    const std::string events = jovu(push_ + " --wait --json").out;
    EXPECT_THAT(
        events,
        StartsWith(
            R"({"event":"sending","device":"1:2","serial":"JVS001002","percent":0.0,"bytes":0,)"
            R"("size":123456})"));
    EXPECT_THAT(events,
                ContainsRegex("\n\\{\"event\":\"finished\",[^\n]*\"progress\":100,[^\n]*\n$"));

    const Ended drawn = jovu(push_ + " --wait", "", Out::terminal);
    for (const char* const part : {"\r\x1b[2KSending    0.0 % [>", "Sending  100.0 % [==",
                                   "Printing 100.0 % [==", "\r\nfinished after "})
        EXPECT_THAT(drawn, Exits(0, part));

    EXPECT_THAT(jovu("push --attach"),
                Exits(6, "no job to follow: 1:2 serial JVS001002 reports the state finished"));
    EXPECT_THAT(jovu("-q " + push_).out,
                MatchesRegex("accepted by 1:2 serial JVS001002: job job-4, [a-z]+\n"));
    EXPECT_THAT(jovu("pause"), Exits(0, "paused"));
    Program attached("push --attach");
    ASSERT_TRUE(attached.writes("job "));
    EXPECT_THAT(attached.out(), ContainsRegex("job [0-9]+ %: paused"));
    attached.signal(SIGINT);
    EXPECT_THAT(attached.finish(), Exits(130, "1:2 serial JVS001002 continues the job"));
    const std::tuple<std::string, const char*> rows[] = {
        {"resume", "^1:2 serial JVS001002  printing"},
        {"wait state Finished", "^1:2 serial JVS001002  finished"},
        {"gcode \"M104 S100\"", "^ok"},
        {"wait temperature 100 --timeout 60", "^1:2 serial JVS001002  finished  (99|10.)\\.. C  "},
        {"gcode \"M104 S0\"", "^ok"},
        {"wait temperature 24 --timeout 60", "^1:2 serial JVS001002  finished  2[345]\\.. C  "},
    };
    for (const auto& [line, told] : rows)
        EXPECT_THAT(jovu(line), AllOf(Exits(0, ""), Field(&Ended::out, ContainsRegex(told))));
    EXPECT_EQ(protocol_violations(device_), 0);
}

TEST_F(Push, GoesOnWhenNobodyReadsAnyMore) {
    fault("never 04 1 6");  // holds one piece up until it is sent again
    Program program(push_);
    ASSERT_TRUE(program.writes("sending"));
    program.close_reader();
    EXPECT_EQ(program.finish().status, 141);
    EXPECT_EQ(job()["verified"], true);
}

TEST_F(Push, DependsOnTheStateThatTheDeviceReports) {
    // A program, the state in the response to its first request, its end.
    const std::tuple<std::string, const char*, int, const char*> rows[] = {
        {push_, "printing", 6, "1:2 serial JVS001002 is busy with another job: printing"},
        {push_, "paused", 6, "1:2 serial JVS001002 is busy with another job: paused"},
        {push_, "receiving", 6, "1:2 serial JVS001002 is busy with another job: receiving"},
        {push_, "Heating up", 6, "1:2 serial JVS001002 is busy with another job: Heating up"},
        {"resume", "printing", 0, "nothing was sent"},
        {"resume --json", "printing", 0, "{\"request\":\"resume\",\"sent\":false"},
        {"wait state idle", "fault", 6,
         "1:2 serial JVS001002 does not reach the state idle: state fault"},
        {"pause", "printing", 6,
         "jovu: pause was sent, but 1:2 serial JVS001002 reports the state idle"},
    };
    for (const auto& [line, state, status, told] : rows) {
        Program program(line);
        respond_to_next_request(device_, {{"status", {{"state", state}}}});
        const int pauses = line == "pause" ? 1 : 0;
        ASSERT_TRUE(eventually([&] { return requests_of("pause") == pauses; }));
        fault("clear");
        EXPECT_THAT(program.finish(), Exits(status, told));
    }
    EXPECT_EQ(requests_of("file_push"), 0);
}

TEST_F(Push, IsPausedAndResumedAsItsStateAllows) {
    // The exit code, the number of pause requests so far, and the output.
    const std::tuple<std::string, int, int, const char*> rows[] = {
        {"pause", 6, 0, "no job to pause: 1:2 serial JVS001002 reports the state idle"},
        {"resume", 6, 0, "no job to resume: 1:2 serial JVS001002 reports the state idle"},
        {push_, 0, 0, "accepted"},
        {"pause --json", 0, 1, "{\"request\":\"pause\",\"sent\":true,\"device\":\"1:2\""},
        {"pause", 0, 1, "nothing was sent"},
        {"abort --json", 0, 1, "{\"request\":\"abort\",\"sent\":true,\"device\":\"1:2\""},
        {"pause", 6, 1, "state aborted"},
        {push_, 0, 1, "accepted"},
        {"pause", 0, 2, "1:2 serial JVS001002  paused"},
        {"resume", 0, 3, "1:2 serial JVS001002  printing"},
    };
    for (const auto& [line, status, pauses, told] : rows) {
        EXPECT_THAT(jovu(line), Exits(status, told)) << line;
        EXPECT_EQ(requests_of("pause"), pauses) << line;
    }
}

TEST_F(Push, TellsWhenTheJobDoesNotEndWell) {
    const std::tuple<const char*, int, int, int, const char*> rows[] = {
        {"heater fault", 77, 43, 6, "did not finish the job: error 77, state heater fault"},
        {"printing", 5, 43, 6, "error 5, state printing"},
        {"aborted", 0, 43, 6, "job was aborted"},
        {"idle", 0, 43, 6, "job ended early, at 43 %"},
        {"idle", 0, 100, 0, ""},
    };
    for (const auto& [state, error, progress, status, told] : rows) {
        Program program(push_ + " --wait");
        ASSERT_TRUE(program.writes("accepted"));
        respond_to_next_request(device_, {{"status", {{"state", state}}},
                                          {"job", {{"id", "x"}, {"progress", progress}}},
                                          {"error", error}});
        EXPECT_THAT(program.finish(), Exits(status, told));
        sim("replug " + name(device_));
    }
}

TEST_F(Push, TellsHowFarItGotWhenItFails) {
    // Behind the status request, the announcement and four pieces.
    fault("status 04 EPIPE 1 6");
    EXPECT_THAT(jovu(push_), Exits(5, "; it received 20480 of 123456 bytes"));
    sim("replug " + name(device_));
    fault("unplug-at 04 50000");
    EXPECT_THAT(jovu(push_), Exits(5, "jovu: push to 1:2 serial JVS001002 failed: Send failed"));
}

TEST_F(Push, IsNotJudgedByAReportFromBefore) {
    // Requested by a program that was killed.
    send_report(device_, {{"status", {{"state", "printing"}}}});
    fault("never 04 1 6");  // holds one piece up until it is sent again
    Program program(push_);
    ASSERT_TRUE(eventually([&] { return job()["received"] >= 20480; }))
        << testing::PrintToString(program.finish());
    send_report(device_, {{"status", {{"state", "error"}}}, {"error", 9}});
    EXPECT_THAT(program.finish(), Exits(0, ""));
}

TEST_F(Push, IsCancelledByAnInterruptAndLeftAtOnceByASecondOne) {
    // A fault that delays the push, the bytes received before the interrupt (0: not even the
    // announcement), whether a second one follows.
    const std::tuple<const char*, int, bool, const char*> rows[] = {
        {"never 04 always 1", 0, false, "Send failed"},
        {"never 04 always 1", 0, true, "ended at once: 1:2 serial JVS001002 may wait"},
        {"never 04 always 6", 20480, true,
         "jovu: ended at once: 1:2 serial JVS001002 waits for the rest"},
        {"never 04 1 6", 20480, false,
         "jovu: interrupted at 20 %: 1:2 serial JVS001002 received filler"},
    };
    Ended ended;
    for (const auto& [delay, received, twice, told] : rows) {
        sim("replug " + name(device_));
        fault(delay);
        Program program(push_);
        ASSERT_TRUE(eventually([&, least = received] {
            return requests_of("status") > 0 && job()["received"] >= least;
        }));
        if (received == 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
        program.signal(SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(600));  // else it is the same
        const auto start = std::chrono::steady_clock::now();
        if (twice) program.signal(SIGINT);
        ended = program.finish();
        EXPECT_THAT(ended, Exits(130, told));
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(!twice || took < std::chrono::seconds(3)) << told;
    }
    EXPECT_THAT(ended, Exits(130, "jovu: interrupted: sending filler for the rest"));
    EXPECT_THAT(ended.out, HasSubstr("filling " + file_.path() + ": 100 %"));
    EXPECT_EQ(job()["received"], kSize);
    EXPECT_EQ(job()["verified"], false);
    EXPECT_EQ(job()["error"], 2) << "refused by its checksum";
}

TEST_F(Push, GoesOnOnTheDeviceWhenTheWaitIsInterrupted) {
    Program program(push_ + " --wait");
    ASSERT_TRUE(program.writes("accepted"));
    fault("silent always");  // the job's end cannot come before the interrupt
    program.signal(SIGINT);
    EXPECT_THAT(program.finish(),
                Exits(130, "1:2 serial JVS001002 continues the job ('jovu abort' ends it)"));
    EXPECT_TRUE(eventually([&] { return job()["finished"] == 1; }));
}

}  // namespace
}  // namespace test
