/// @file
/// The recording of servo traces.
#include <fcntl.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "cli_test.h"
#include "posix/files.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

/// @return a sample as the firmware sends it.
std::string sample(int servo, unsigned count, int commanded, int position) {
    const json args = {{"msg",
                        {{"servo_name", servo},
                         {"servo_state", 2},
                         {"int_cnt", count},
                         {"pos_cmd", commanded},
                         {"pos", position},
                         {"pwm", -7},
                         {"padout_dist", 8}}}};
    return json{{"transport", {{"attrs", {"request", "oneway"}}, {"id", 7}}},
                {"data", {{"event", {{"name", "servo_dc_trace_event"}, {"args", args}}}}}}
        .dump();
}

/// A device and the files of a trace.
class Trace : public testing::Test {
protected:
    /// Whether the last request switched the tracing off.
    bool switched_off() const {
        return requests(device_, "servo_dc_trace_enable") == 2 && !traced(0);
    }
    /// @return the files with the names of this test, sorted.
    static std::vector<std::string> files() {
        std::set<std::string> paths;
        for (const auto& entry : fs::directory_iterator(testing::TempDir())) {
            if (entry.path().filename().string().find(std::to_string(getpid()) + "-trace") == 0)
                paths.insert(entry.path());
        }
        return {paths.begin(), paths.end()};
    }
    bool traced(std::size_t servo) const {
        return stats(device_)["machine"]["servos"][servo]["traced"].get<bool>();
    }

    const JovuDeviceAddress device_ = plug();
    const TemporaryFile csv_{"trace.csv", "old"};
    const TemporaryFile plot_{"trace's plot.png", "old"};
};

TEST_F(Trace, IsWrittenAndDrawnAndSummedUp) {
    const std::string link = csv_.path() + ".link";
    fs::create_symlink(csv_.path(), link);
    chmod(csv_.path().c_str(), 0640);
    const Ended ended = jovu({"trace", "1", "--seconds", "2", "--move", "15", "--csv", link,
                              "--plot", plot_.path(), "--json"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    const json summary = json::parse(ended.out);
    EXPECT_EQ(summary["name"], "Y");
    // The move is over after a quarter of them: a slow bus does not keep up with the servo.
    EXPECT_GT(summary["samples"], 500);
    EXPECT_EQ(summary["gaps"], 0);
    EXPECT_EQ(summary["lost"], 0);
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
    EXPECT_TRUE(switched_off());
    EXPECT_EQ(protocol_violations(device_), 0);
}

TEST_F(Trace, TellsWhatIsMissing) {
    Program program({"trace", "3", "--csv", csv_.path(), "--json"});
    // Without a move the device sends only the samples below.
    ASSERT_TRUE(eventually([&] { return traced(3); }));
    sim("frame " + name(device_) + " " + sample(7, 50, 0, 0));
    for (const unsigned count : {4294900000U, 4294900001U, 4294900005U, 4294900005U}) {
        sim("frame " + name(device_) + " " + sample(3, count, -2000000000, 2000000000));
    }
    sim("event " + name(device_) + " the end");
    ASSERT_TRUE(program.complains("prints: the end"));
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130);
    const json summary = json::parse(program.out());
    EXPECT_THAT(content_of(csv_.path()),
                testing::ContainsRegex("\n4294900000,[0-9.]+,3,2,-2000000000,2000000000,-7,8\n"));
    EXPECT_GE(summary["missing"], 3);
    EXPECT_GE(summary["restarts"], 1);
    EXPECT_EQ(summary["following_error"]["largest"], -4000000000);
    EXPECT_THAT(program.err(), HasSubstr("the trace has gaps: "));
    EXPECT_FALSE(traced(3));
}

TEST_F(Trace, IsSwitchedOffOnEveryWayOut) {
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        Program program({"trace", "0", "--csv", csv_.path()});
        ASSERT_TRUE(eventually([&] { return traced(0); }));
        program.signal(signal);
        EXPECT_EQ(program.finish(), 130);
        EXPECT_FALSE(traced(0));
    }
    const std::string pipe = csv_.path() + ".pipe", link = csv_.path() + ".link",
                      loop = csv_.path() + ".loop";
    mkfifo(pipe.c_str(), 0600);
    fs::create_symlink("nowhere", link);
    fs::create_symlink(loop, loop);
    const jovu_cli::FileDescriptor reader(open(pipe.c_str(), O_RDONLY | O_NONBLOCK));
    fcntl(reader.get(), F_SETPIPE_SZ, 4096);
    const std::pair<std::string, const char*> targets[] = {
        {"/dev/full", ": No space left on device"},
        {"/dev/stdout", " (it carries results and messages: name a file or a pipe)"},
        {pipe, ": Connection timed out"},
        {link, ": No such file or directory (it is a symbolic link that leads to no file)"},
        {loop, ": Too many levels of symbolic links\n"}};
    for (const auto& [path, told] : targets) {
        const Ended ended = jovu({"trace", "0", "--csv", path});
        EXPECT_EQ(ended.status, 7);
        EXPECT_THAT(ended.err, HasSubstr(path + told));
        EXPECT_FALSE(traced(0));
    }
    EXPECT_TRUE(fs::remove(pipe) && fs::remove(link) && fs::remove(loop));

    const Ended refused = jovu({"trace", "0", "--move", "5000", "--seconds", "9"});
    EXPECT_EQ(refused.status, 6);
    EXPECT_THAT(refused.err, HasSubstr(name(device_) + " refused the move with result 3"));
    EXPECT_FALSE(traced(0));
}

TEST_F(Trace, KeepsWhatItHasWhenTheDeviceGoes) {
    Program program({"trace", "0", "--csv", csv_.path(), "--plot", plot_.path()});
    ASSERT_TRUE(eventually([&] { return stats(device_)["message"]["events"] > 100; }));
    sim("unplug " + name(device_));
    EXPECT_EQ(program.finish(), 5);
    EXPECT_THAT(program.err(),
                HasSubstr(name(device_) + " has disconnected: the tracing was not switched off"));
    EXPECT_EQ(content_of(csv_.path()), "old");
    ASSERT_EQ(files().size(), 3U) << "with the samples, and nothing of the image";
    const std::string part = files().back();
    EXPECT_THAT(program.err(), HasSubstr("the samples recorded so far are in " + part));
    EXPECT_THAT(content_of(part), StartsWith("int_cnt,"));
    fs::remove(part);
}

TEST_F(Trace, IsNotBegunWhenItWouldBeInVain) {
    const std::string nowhere = csv_.path() + "-missing/trace.csv";
    EXPECT_EQ(jovu({"trace", "0", "--csv", nowhere}).status, 7);
    EXPECT_EQ(jovu({"trace", "0", "--plot", testing::TempDir()}).status, 7);
    const std::string path = std::getenv("PATH");
    setenv("PATH", testing::TempDir().c_str(), 1);
    const Ended ended = jovu({"trace", "0", "--plot", plot_.path()});
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, HasSubstr("--plot needs gnuplot, which is not installed"));
    EXPECT_EQ(requests(device_, "servo_dc_trace_enable"), 0);
    EXPECT_EQ(jovu({"trace", "99", "--seconds", "0.1"}).status, 6) << "no such servo";
    EXPECT_EQ(jovu({"trace", "99999"}).status, 2);
    EXPECT_EQ(jovu({"trace", "0", "--move", "inf"}).status, 2);
}

}  // namespace
}  // namespace test
