/// @file
/// Print jobs: sent, followed, refused, broken off.

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
    EXPECT_EQ(complaints(device_), 0);
}

TEST_F(Push, IsToldInJson) {
    const Ended ended = jovu({"push", "--wait", file_.path(), "--json"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    const std::vector<json> events = json_lines(ended.out);
    ASSERT_GE(events.size(), 3U);
    EXPECT_EQ(events.front(), json({{"event", "sending"},
                                    {"device", "1:2"},
                                    {"percent", 0.0},
                                    {"bytes", 0},
                                    {"size", kSize}}));
    EXPECT_EQ(events.back()["event"], "finished");
    EXPECT_EQ(events.back()["job"]["progress"], 100);
}

TEST_F(Push, IsDrawnAsABarOnATerminal) {
    const Ended ended = jovu({"push", file_.path(), "--wait"}, "", Out::terminal);
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_THAT(ended.out, HasSubstr("\r\x1b[2KSending    0.0 % [>"));
    EXPECT_THAT(ended.out, HasSubstr("Sending  100.0 % [=="));
    EXPECT_THAT(ended.out, HasSubstr("Printing 100.0 % [=="));
    EXPECT_THAT(ended.out, HasSubstr("\r\nfinished after "));
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
    ASSERT_EQ(jovu({"push", file_.path()}).status, 0);
    ASSERT_EQ(jovu({"pause"}).status, 0);
    const Ended ended = jovu({"push", file_.path()});
    EXPECT_EQ(ended.status, 6);
    EXPECT_THAT(ended.err, HasSubstr("1:2 is busy with another job: paused"));
    EXPECT_EQ(job()["pushes"], 1);
    EXPECT_THAT(jovu({"abort"}).out, HasSubstr("aborted"));
    EXPECT_EQ(jovu({"push", file_.path()}).status, 0);
}

TEST_F(Push, TellsWhenTheJobDoesNotEndWell) {
    const struct {
        json status;
        json error;
        const char* told;
    } rows[] = {
        {{{"state", "heater fault"}}, 77, "did not finish the job: error 77, state heater fault"},
        {{{"state", "printing"}}, 5, "error 5, state printing"},
        {{{"state", "aborted"}}, 0, "job was aborted"},
        {{{"state", "idle"}}, 0, "job ended early, at 43 %"},
    };
    for (const auto& row : rows) {
        Program program({"push", file_.path(), "--wait"});
        ASSERT_TRUE(program.writes("accepted"));
        answer_next_request(device_, {{"metadata", {{"type", "status"}}},
                                      {"status", row.status},
                                      {"job", {{"id", "x"}, {"progress", 43}}},
                                      {"error", row.error}});
        EXPECT_EQ(program.finish(), 6);
        EXPECT_THAT(program.err(), HasSubstr(row.told));
        sim("replug " + name(device_));
    }
}

TEST_F(Push, TellsHowFarItGotWhenTheDeviceGoesAway) {
    fault("unplug-at 04 50000");
    const Ended ended = jovu({"push", file_.path()});
    EXPECT_EQ(ended.status, 5);
    EXPECT_THAT(ended.err, HasSubstr("jovu: push to 1:2 failed: Send failed"));
    EXPECT_THAT(ended.err, HasSubstr(" of 123456 bytes"));
}

TEST_F(Push, TellsHowFarItGotWhenTheDeviceStalls) {
    fault("status 04 EPIPE 1 6");  // after the status request, the announcement and four pieces
    const Ended ended = jovu({"push", file_.path()});
    EXPECT_EQ(ended.status, 5);
    EXPECT_THAT(ended.err, HasSubstr("1:2 has got 20480 of 123456 bytes"));
}

TEST_F(Push, TellsWhatAnInterruptLeavesBehind) {
    fault("never 04 1 6");  // holds one piece up until it is sent again
    Program program({"push", file_.path()});
    ASSERT_TRUE(eventually([&] { return job()["received"] >= 20480; }));
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    EXPECT_THAT(program.err(), HasSubstr("jovu: interrupted: 1:2 has got "));
    EXPECT_THAT(program.err(), HasSubstr("takes whatever comes next for the rest of the job"));
    EXPECT_LT(job()["received"], kSize);
}

TEST_F(Push, GoesOnOnTheDeviceWhenTheWaitIsInterrupted) {
    Program program({"push", file_.path(), "--wait"});
    ASSERT_TRUE(program.writes("accepted"));
    fault("silent always");  // the job's end cannot come before the interrupt
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    EXPECT_THAT(program.err(), HasSubstr("1:2 goes on with the job ('jovu abort' ends it)"));
    EXPECT_TRUE(eventually([&] { return job()["finished"] == 1; }));
}

TEST(Terminal, RedrawsTheStatusAndGetsNoRawTextsFromTheDevice) {
    const JovuDeviceAddress device = plug();
    Program watch({"status", "--watch", "--interval", "0.05"}, Out::terminal);
    ASSERT_TRUE(watch.writes("\x1b[11A\r\x1b[2KDevice        1:2"));
    answer_next_request(device, {{"metadata", {{"type", "status"}}},
                                 {"status",
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
