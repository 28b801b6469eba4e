/// @file
/// Print jobs: sent, followed, refused, cancelled.

#include <csignal>

#include "cli_test.h"

namespace test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t kSize = 123456;

class Push : public testing::Test {
protected:
    json job() const { return stats(device_)["job"]; }
    void fault(const std::string& what) const { sim("fault " + name(device_) + " " + what); }

    const JovuDeviceAddress device_ = plug();
    const TemporaryFile file_{"job.gcode", job_content(kSize)};
};

TEST_F(Push, IsFollowedToItsEnd) {
    const Ended ended = jovu({"push", file_.path(), "--wait"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_THAT(ended.out, StartsWith("sending " + file_.path() + ": 0 %, 0 of 123456 bytes\n"));
    EXPECT_THAT(ended.out,
                HasSubstr(": 100 %, 123456 of 123456 bytes\naccepted by 1:2: job job-1"));
    EXPECT_THAT(ended.out, HasSubstr("\nfinished after "));
    EXPECT_LT(std::count(ended.out.begin(), ended.out.end(), '\n'), 40);
    EXPECT_EQ(job()["received"], kSize);
    EXPECT_EQ(job()["verified"], true);
    EXPECT_EQ(job()["finished"], 1);

    const std::vector<json> events =
        json_lines(jovu({"push", "--wait", file_.path(), "--json"}).out);
    EXPECT_EQ(events.at(0).dump(),
              R"({"bytes":0,"device":"1:2","event":"sending","percent":0.0,"size":123456})");
    EXPECT_EQ(events.back()["event"], "finished");
    EXPECT_EQ(events.back()["job"]["progress"], 100);

    const Ended drawn = jovu({"push", file_.path(), "--wait"}, "", Out::terminal);
    EXPECT_EQ(drawn.status, 0) << drawn.err;
    for (const char* const part : {"\r\x1b[2KSending    0.0 % [>", "Sending  100.0 % [==",
                                   "Printing 100.0 % [==", "\r\nfinished after "})
        EXPECT_THAT(drawn.out, HasSubstr(part));
    EXPECT_EQ(protocol_violations(device_), 0);
}

TEST_F(Push, GoesOnWhenNobodyReadsAnyMore) {
    fault("never 04 1 6");  // holds one piece up until it is sent again
    Program program({"push", file_.path()});
    ASSERT_TRUE(program.writes("sending"));
    program.close_reader();
    EXPECT_EQ(program.finish(), 141);
    EXPECT_EQ(job()["verified"], true);
}

TEST_F(Push, IsNotSentToABusyDevice) {
    for (const char* const state : {"printing", "paused", "receiving", "Heating up"}) {
        Program program({"push", file_.path()});
        respond_to_next_request(device_, {{"status", {{"state", state}}}});
        EXPECT_EQ(program.finish(), 6);
        EXPECT_THAT(program.err(),
                    HasSubstr(std::string("1:2 is busy with another job: ") + state));
        fault("clear");
    }
    EXPECT_EQ(job()["requests"].value("file_push", 0), 0);
}

TEST_F(Push, IsPausedAndResumedAsItsStateAllows) {
    Program running({"resume"});
    respond_to_next_request(device_, {{"status", {{"state", "printing"}}}});
    EXPECT_EQ(running.finish(), 0);
    EXPECT_THAT(running.out(), HasSubstr("nothing was sent"));
    fault("clear");
    Program ignored({"pause"});
    respond_to_next_request(device_, {{"status", {{"state", "printing"}}}});
    ASSERT_TRUE(eventually([&] { return job()["requests"].value("pause", 0) == 1; }));
    fault("clear");
    EXPECT_EQ(ignored.finish(), 6);
    EXPECT_THAT(ignored.err(), HasSubstr("jovu: pause was sent, but 1:2 reports the state idle"));
    sim("replug " + name(device_));
    // The exit code, the number of pause requests so far, and the output.
    const std::tuple<const char*, int, int, const char*> rows[] = {
        {"pause", 6, 0, "no job to pause: 1:2 reports the state idle"},
        {"resume", 6, 0, "no job to resume: 1:2 reports the state idle"},
        {"push", 0, 0, "accepted"},
        {"pause", 0, 1, "1:2  paused"},
        {"pause", 0, 1, "nothing was sent"},
        {"abort --json", 0, 1, "{\"request\":\"abort\",\"sent\":true,\"device\":\"1:2\""},
        {"pause", 6, 1, "state aborted"},
        {"push", 0, 1, "accepted"},
        {"pause", 0, 2, "1:2  paused"},
        {"resume", 0, 3, "1:2  printing"},
        {"resume --json", 0, 3, "{\"request\":\"resume\",\"sent\":false"},
    };
    for (const auto& [command, exit_code, requests, shown] : rows) {
        std::vector<std::string> words{command};
        if (words[0] == "push") words.push_back(file_.path());
        if (words[0].back() == 'n') words = {words[0].substr(0, words[0].find(' ')), "--json"};
        const Ended ended = jovu(words);
        EXPECT_EQ(ended.status, exit_code) << command << ": " << ended.err;
        EXPECT_THAT(ended.out + ended.err, HasSubstr(shown));
        EXPECT_EQ(job()["requests"].value("pause", 0), requests) << command;
    }
}

TEST_F(Push, TellsWhenTheJobDoesNotEndWell) {
    const struct {
        json status;
        json error;
        const char* told;
        int progress = 43;
    } rows[] = {
        {{{"state", "heater fault"}}, 77, "did not finish the job: error 77, state heater fault"},
        {{{"state", "printing"}}, 5, "error 5, state printing"},
        {{{"state", "aborted"}}, 0, "job was aborted"},
        {{{"state", "idle"}}, 0, "job ended early, at 43 %"},
        {{{"state", "idle"}}, 0, nullptr, 100},
    };
    for (const auto& row : rows) {
        Program program({"push", file_.path(), "--wait"});
        ASSERT_TRUE(program.writes("accepted"));
        respond_to_next_request(device_, {{"status", row.status},
                                          {"job", {{"id", "x"}, {"progress", row.progress}}},
                                          {"error", row.error}});
        EXPECT_EQ(program.finish(), row.told == nullptr ? 0 : 6);
        EXPECT_THAT(program.err(), HasSubstr(row.told == nullptr ? "" : row.told));
        sim("replug " + name(device_));
    }
}

TEST_F(Push, TellsHowFarItGotWhenItFails) {
    const std::pair<const char*, const char*> rows[] = {
        {"unplug-at 04 50000", "jovu: push to 1:2 failed: Send failed"},
        // Behind the status request, the announcement and four pieces.
        {"status 04 EPIPE 1 6", "1:2 received 20480 of 123456 bytes"},
    };
    for (const auto& [what, told] : rows) {
        fault(what);
        const Ended ended = jovu({"push", file_.path()});
        EXPECT_EQ(ended.status, 5);
        EXPECT_THAT(ended.err, testing::AllOf(HasSubstr(told), HasSubstr(" of 123456 bytes")));
        if (&what == &rows[0].first) plug(name(device_));
    }
}

TEST_F(Push, IsNotJudgedByAReportFromBefore) {
    // Requested by a program that was killed.
    send_report(device_, {{"status", {{"state", "printing"}}}});
    fault("never 04 1 6");  // holds one piece up until it is sent again
    Program program({"push", file_.path()});
    ASSERT_TRUE(eventually([&] { return job()["received"] >= 20480; }));
    send_report(device_, {{"status", {{"state", "error"}}}, {"error", 9}});
    EXPECT_EQ(program.finish(), 0) << program.err();
}

TEST_F(Push, IsCancelledByAnInterruptAndLeftAtOnceByASecondOne) {
    for (const bool twice : {false, true}) {
        fault(twice ? "never 04 always 6" : "never 04 1 6");
        Program program({"push", file_.path()});
        ASSERT_TRUE(eventually([&] { return job()["received"] >= 20480; }));
        program.signal(SIGINT);
        if (twice) {
            std::this_thread::sleep_for(std::chrono::milliseconds(600));  // else it is the same
            program.signal(SIGINT);
        }
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(program.finish(), 130);
        if (twice) {
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
            EXPECT_THAT(program.err(), HasSubstr("jovu: ended at once: 1:2 waits for the rest"));
            return;
        }
        EXPECT_THAT(program.out(), HasSubstr("filling " + file_.path() + ": 100 %"));
        EXPECT_THAT(program.err(), HasSubstr("jovu: interrupted: sending filler for the rest"));
        EXPECT_THAT(program.err(), HasSubstr("jovu: interrupted at 20 %: 1:2 received filler"));
        EXPECT_EQ(job()["received"], kSize);
        EXPECT_EQ(job()["verified"], false);
        const json report = json::parse(jovu({"status", "--json"}).out);
        EXPECT_EQ(report["error"], 2) << "refused by its checksum";
        sim("replug " + name(device_));
    }
}

TEST_F(Push, MayBeLeftBeforeTheAnnouncementIsThrough) {
    for (const bool twice : {false, true}) {
        fault("never 04 always 1");  // all behind the status request
        Program program({"push", file_.path()});
        ASSERT_TRUE(eventually([&] { return job()["requests"].value("status", 0) > 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        program.signal(SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(600));  // else it is the same
        if (twice) program.signal(SIGINT);
        EXPECT_EQ(program.finish(), 130);
        EXPECT_THAT(program.err(),
                    HasSubstr(twice ? "ended at once: 1:2 may wait" : "Send failed"));
        sim("replug " + name(device_));
    }
}

TEST_F(Push, GoesOnOnTheDeviceWhenTheWaitIsInterrupted) {
    Program program({"push", file_.path(), "--wait"});
    ASSERT_TRUE(program.writes("accepted"));
    fault("silent always");  // the job's end cannot come before the interrupt
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    EXPECT_THAT(program.err(), HasSubstr("1:2 continues the job ('jovu abort' ends it)"));
    EXPECT_TRUE(eventually([&] { return job()["finished"] == 1; }));
}

TEST(Terminal, RedrawsTheStatusAndGetsNoRawTextsFromTheDevice) {
    const JovuDeviceAddress device = plug();
    Program watch({"status", "--watch", "--interval", "0.1"}, Out::terminal);
    ASSERT_TRUE(watch.writes("\x1b[11A\r\x1b[2KDevice        1:2"));
    respond_to_next_request(device, {{"status",
                                      {{"state",
                                        "\x1b]0;title\x07 \xC2\x9B"
                                        "2J"}}}});
    ASSERT_TRUE(watch.writes("\\x1b]0;title\\x07 \\u009b2J"));
    watch.signal(SIGINT);
    EXPECT_EQ(watch.finish(), 130);
    EXPECT_THAT(watch.out(), testing::Not(HasSubstr("\x1b]0")));
}

}  // namespace
}  // namespace test
