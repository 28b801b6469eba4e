// SPDX-License-Identifier: Apache-2.0

/// @file
/// The recording of servo traces.
#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "cli_test.h"
#include "posix/files.h"

namespace test {
namespace {

namespace fs = std::filesystem;

/// A device and the files of a trace.
class Trace : public testing::Test {
protected:
    /// @return the files with the names of this test, sorted.
    static std::vector<std::string> files() {
        glob_t found{};
        glob((testing::TempDir() + std::to_string(getpid()) + "-trace*").c_str(), 0, nullptr,
             &found);
        std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
        globfree(&found);
        return paths;
    }
    bool traced(std::size_t servo) const {
        return stats(device_)["machine"]["servos"][servo]["traced"].get<bool>();
    }
    /// Sends a sample as the firmware does.
    void send_sample(int servo, unsigned count, int commanded, int position) const {
        const json sample = {{"servo_name", servo},  {"servo_state", 2}, {"int_cnt", count},
                             {"pos_cmd", commanded}, {"pos", position},  {"pwm", -7},
                             {"padout_dist", 8}};
        sim("frame " + name(device_) +
            R"( {"transport":{"attrs":["request","oneway"],"id":7},"data":{"event":)" +
            R"({"name":"servo_dc_trace_event","args":{"msg":)" + sample.dump() + "}}}}");
    }

    const JovuDeviceAddress device_ = plug();
    const TemporaryFile csv_{"trace.csv", "old"};
    const TemporaryFile plot_{"trace's plot.png", "old"};
    const std::string to_plot_ = " --plot \"" + plot_.path() + "\"";
};

TEST_F(Trace, IsWrittenAndDrawnAndSummedUp) {
    const std::string link = csv_.path() + ".link";
    fs::create_symlink(csv_.path(), link);
    chmod(csv_.path().c_str(), 0640);
    const Ended ended = jovu("trace 1 --seconds 2 --move 15 --json --csv " + link + to_plot_);
    EXPECT_THAT(ended, Exits(0, "\"name\":\"Y\""));
    const json summary = json::parse(ended.out);
    // The move is over after a quarter of them: a slow bus does not keep up with the servo.
    EXPECT_GT(summary["samples"], 500);
    EXPECT_THAT(ended.out, HasSubstr(R"("gaps":0,"missing":0,"restarts":0,"lost":0,)"));
    EXPECT_NEAR(summary["position"]["highest"].get<int>(), 3000, 100) << "15 mm";
    EXPECT_GT(summary["following_error"]["largest"], 0);

    const std::string rows = content_of(csv_.path());
    EXPECT_THAT(rows, StartsWith("int_cnt,time_s,servo_name,servo_state,pos_cmd,pos,pwm,"
                                 "padout_dist\n"));
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 1 + summary["samples"].get<int>());
    EXPECT_THAT(rows, HasSubstr(",0.000,1,"));
    EXPECT_THAT(content_of(plot_.path()), StartsWith("\x89PNG\r\n"));
    EXPECT_GT(content_of(plot_.path()).size(), 20000U);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(csv_.path()).permissions(), fs::perms(0640));
    fs::remove(link);
    EXPECT_THAT(files(), testing::ElementsAre(plot_.path(), csv_.path()));
    EXPECT_EQ(requests(device_, "servo_dc_trace_enable"), 2);
    EXPECT_FALSE(traced(1));
    EXPECT_EQ(protocol_violations(device_), 0);
}

TEST_F(Trace, TellsWhatIsMissing) {
    Program program("trace 3 --json --csv " + csv_.path());
    // Without a move the device sends only the samples below.
    ASSERT_TRUE(eventually([&] { return traced(3); }));
    send_sample(7, 50, 0, 0);
    for (const unsigned count : {4294900000U, 4294900001U, 4294900005U, 4294900005U})
        send_sample(3, count, -2000000000, 2000000000);
    sim("event " + name(device_) + " the end");
    ASSERT_TRUE(program.writes("prints: the end"));
    program.signal(SIGINT);
    const Ended ended = program.finish();
    EXPECT_THAT(ended, Exits(130, "the trace has gaps: "));
    const json summary = json::parse(ended.out);
    EXPECT_THAT(content_of(csv_.path()),
                ContainsRegex("\n4294900000,[0-9.]+,3,2,-2000000000,2000000000,-7,8\n"));
    EXPECT_GE(summary["missing"], 3);
    EXPECT_GE(summary["restarts"], 1);
    EXPECT_EQ(summary["following_error"]["largest"], -4000000000);
    EXPECT_FALSE(traced(3));
}

TEST_F(Trace, IsSwitchedOffOnEveryWayOut) {
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        Program program("trace 0 --csv " + csv_.path());
        ASSERT_TRUE(eventually([&] { return traced(0); }));
        program.signal(signal);
        EXPECT_THAT(program.finish(), Exits(130, ""));
        EXPECT_FALSE(traced(0));
    }
    const std::string pipe = csv_.path() + ".pipe", link = csv_.path() + ".link",
                      loop = csv_.path() + ".loop";
    mkfifo(pipe.c_str(), 0600);
    fs::create_symlink("nowhere", link);
    fs::create_symlink(loop, loop);
    const jovu_cli::FileDescriptor reader(open(pipe.c_str(), O_RDONLY | O_NONBLOCK));
    fcntl(reader.get(), F_SETPIPE_SZ, 4096);
    Program blocked("trace 3 --csv " + pipe);
    ASSERT_TRUE(eventually([&] { return traced(3); }));
    for (unsigned count = 0; count < 200; ++count)  // Without a move the device sends only these.
        send_sample(3, count, 0, 0);
    EXPECT_THAT(blocked.finish(), Exits(7, pipe + ": Connection timed out"));
    const std::tuple<std::string, int, std::string> rows[] = {
        {"--csv /dev/full", 7, "/dev/full: No space left on device"},
        {"--csv /dev/stdout", 7, " (it carries results and messages: name a file or a pipe)"},
        {"--csv " + link, 7,
         ": No such file or directory (it is a symbolic link that leads to no file)"},
        {"--csv " + loop, 7, loop + ": Too many levels of symbolic links\n"},
        {"--move 5000 --seconds 9", 6,
         name(device_) + " serial JVS001002 refused the move with result 3"}};
    for (const auto& [options, status, told] : rows) {
        EXPECT_THAT(jovu("trace 0 " + options), Exits(status, told));
        EXPECT_FALSE(traced(0));
    }
    EXPECT_TRUE(fs::remove(pipe) && fs::remove(link) && fs::remove(loop));
    EXPECT_THAT(jovu("trace 99 --seconds 0.1"), Exits(6, "")) << "no such servo";
}

TEST_F(Trace, KeepsWhatItHasWhenTheDeviceGoes) {
    Program program("trace 0 --csv " + csv_.path() + to_plot_);
    ASSERT_TRUE(eventually([&] { return stats(device_)["message"]["events"] > 100; }));
    sim("unplug " + name(device_));
    const Ended ended = program.finish();
    EXPECT_THAT(ended, Exits(5, " has disconnected: the tracing was not switched off"));
    EXPECT_EQ(content_of(csv_.path()), "old");
    ASSERT_EQ(files().size(), 3U) << "with the samples, and nothing of the image";
    const std::string part = files().back();
    EXPECT_THAT(ended, Exits(5, "the samples recorded so far are in " + part));
    EXPECT_THAT(content_of(part), StartsWith("int_cnt,"));
    fs::remove(part);
}

}  // namespace
}  // namespace test
