/// @file
/// The shell: at a pseudo-terminal, and with a script.
#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kCtrlC = "\x03";
constexpr const char* kCtrlD = "\x04";
constexpr const char* kUp = "\x1b[A";
constexpr const char* kPrompt = "\r\njovu> ";

/// A shell at a terminal, with a history of its own.
class Shell : public testing::Test {
protected:
    Shell() {
        setenv("XDG_STATE_HOME", state_.c_str(), 1);
        setenv("HOME", state_.c_str(), 1);
    }
    ~Shell() override { std::filesystem::remove_all(state_); }

    void start() {
        shell_.emplace(std::vector<std::string>{"shell"}, Out::console);
        ASSERT_TRUE(shell_->writes("connected: " + name(device_) + kPrompt)) << shell_->out();
    }
    /// Types something and waits for what comes of it, in what is written from then on.
    /// @param behind what has to come behind that, at any distance.
    testing::AssertionResult answers(const std::string& typed, const std::string& expected,
                                     const std::string& behind = "") {
        const std::size_t before = shell_->out().size();
        shell_->type(typed);
        const bool came = eventually([&] {
            shell_->writes("never written", std::chrono::milliseconds(1));
            const std::size_t found = shell_->out().find(expected, before);
            return found != std::string::npos &&
                   shell_->out().find(behind, found) != std::string::npos;
        });
        if (came) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "not written: " << expected << "\nbut: " << shell_->out().substr(before);
    }
    int leave() {
        shell_->type(kCtrlD);
        return shell_->finish();
    }

    const JovuDeviceAddress device_ = plug();
    const std::string state_ = testing::TempDir() + std::to_string(getpid()) + "-state";
    std::optional<Program> shell_;
};

TEST_F(Shell, SendsGcodeAndRunsCommandsOverOneLink) {
    start();
    const int opens = stats(device_)["opens"];
    EXPECT_TRUE(answers("M114\r", std::string("X:0.00 Y:0.00 Z:0.00 E:0.00") + kPrompt));
    EXPECT_TRUE(answers(".call bio_get_serial\r", "JVS"));
    EXPECT_TRUE(answers(".status\r", "State         idle\r\n"));
    EXPECT_TRUE(answers(".list\r", "version 1.0.0"));
    EXPECT_TRUE(answers(".device\r", "connected: " + name(device_) + kPrompt));
    EXPECT_TRUE(answers(".device 7:7\r", kPrompt));
    EXPECT_TRUE(answers("G28\r", kPrompt));
    EXPECT_TRUE(answers(".device " + name(device_) + "\r", kPrompt));
    EXPECT_TRUE(answers(".call gcode_process_command 'command=M117 a \"b\"'\r",
                        std::string("0") + kPrompt));
    EXPECT_EQ(stats(device_)["opens"], opens);
    EXPECT_EQ(stats(device_)["message"]["display"], "a \"b\"");
    EXPECT_EQ(leave(), 0);
    EXPECT_THAT(shell_->err(), HasSubstr("jovu: no such device: 7:7"));
    EXPECT_EQ(complaints(device_), 0);
}

TEST_F(Shell, CompletesNamesAndKeys) {
    start();
    EXPECT_TRUE(answers(".ca\t", "ll "));
    EXPECT_TRUE(answers("servo_dc_config_s\t", "et "));
    EXPECT_TRUE(answers("servo\t", "_name="));
    EXPECT_TRUE(answers("0 \t", "config."));
    EXPECT_TRUE(answers("pwm\t", "_cap"));
    EXPECT_TRUE(answers("\t", "config.pwm_cap=       config.pwm_cap_time=\r\n"));
    EXPECT_TRUE(answers(kCtrlC, "^C\r\njovu> "));
    EXPECT_TRUE(answers(".call heater_t\t", "urn_o"));
    EXPECT_TRUE(answers("\t", "heater_turn_on   heater_turn_off\r\n"));
    EXPECT_TRUE(answers("n\r", std::string("0") + kPrompt));
    EXPECT_EQ(leave(), 0);
}

TEST_F(Shell, GoesOnAfterErrorsAndInterrupts) {
    start();
    EXPECT_TRUE(answers("G999\r", kPrompt));
    EXPECT_TRUE(answers(".frobnicate\r", kPrompt));
    EXPECT_TRUE(answers(".call gpio_get_raw 'gpio=1\r", kPrompt));
    EXPECT_TRUE(answers("M117 abandoned", "abandoned"));
    EXPECT_TRUE(answers(kCtrlC, "^C\r\njovu> "));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // else it is the same Ctrl-C

    sim("fault " + name(device_) + " silent always");
    shell_->type(".call heater_turn_on\r");
    ASSERT_TRUE(eventually([&] { return requests(device_, "heater_turn_on") == 1; }));
    EXPECT_TRUE(answers(kCtrlC, "^Cjovu> "));
    sim("fault " + name(device_) + " clear");
    EXPECT_TRUE(answers(".call bio_get_version\r", std::string("1.0.0") + kPrompt));
    EXPECT_EQ(stats(device_)["message"]["display"], "");

    shell_->signal(SIGTERM);
    EXPECT_EQ(shell_->finish(), 130);
    for (const char* told :
         {"jovu: device refused line 1 with result 2: G999", "jovu: no such command: .frobnicate",
          "jovu: a quote is not closed",
          "jovu: interrupted: heater_turn_on may or may not have been carried out"}) {
        EXPECT_THAT(shell_->err(), HasSubstr(told));
    }
}

TEST_F(Shell, ShowsEventsWithoutHarmToTheLine) {
    start();
    EXPECT_TRUE(answers("M117 caf\xC3\xA9", "caf\xC3\xA9"));
    sim("event " + name(device_) + " something happened");
    EXPECT_TRUE(answers("", "  something happened\r\njovu> M117 caf\xC3\xA9"));
    EXPECT_TRUE(answers("\r", std::string("ok       M117 caf\xC3\xA9") + kPrompt));
    EXPECT_TRUE(answers(".events off\r", kPrompt));
    sim("event " + name(device_) + " unheard");
    EXPECT_TRUE(answers(".call bio_get_version\r", std::string("1.0.0") + kPrompt));
    EXPECT_TRUE(answers("M115\r", kPrompt)) << "what a line prints is shown all the same";
    EXPECT_TRUE(answers(".events on\r", kPrompt));
    sim("event " + name(device_) + " heard again");
    EXPECT_TRUE(answers("", "heard again\r\n"));
    EXPECT_EQ(leave(), 0);
    EXPECT_THAT(shell_->out(), Not(HasSubstr("unheard")));
    EXPECT_THAT(shell_->out(), testing::ContainsRegex("\r.\\[J[0-9:.]+  something happened"));
    EXPECT_EQ(stats(device_)["message"]["display"], "caf\xC3\xA9");
}

TEST_F(Shell, KeepsItsHistory) {
    start();
    EXPECT_TRUE(answers("M117 one\r", kPrompt));
    EXPECT_TRUE(answers(" M117 secret\r", kPrompt));
    EXPECT_EQ(leave(), 0);
    start();
    EXPECT_TRUE(answers(kUp, "M117 one"));
    EXPECT_TRUE(answers("-two\r", "ok       M117 one-two"));
    EXPECT_TRUE(answers(".quit\r", ".quit"));
    EXPECT_EQ(shell_->finish(), 0);
    const auto permissions = std::filesystem::status(state_ + "/jovu/history").permissions();
    EXPECT_EQ(permissions, std::filesystem::perms(0600));
}

TEST_F(Shell, FollowsADeviceThatIsPluggedInAnew) {
    start();
    sim("replug " + name(device_));
    EXPECT_TRUE(eventually([&] { return stats(device_)["opens"].get<int>() >= 1; }));
    EXPECT_TRUE(answers(".call bio_get_version\r", std::string("1.0.0") + kPrompt));
    // Up to the prompt behind it, since the device's return brings one as well: a Ctrl-D typed
    // before would be the terminal's, not the shell's.
    EXPECT_TRUE(answers(".status\r", "State         idle\r\n", kPrompt));
    EXPECT_EQ(leave(), 0);
}

TEST_F(Shell, ReadsAScriptUpToTheFirstFailure) {
    const Ended good = jovu({"shell", "--json"}, "G28 ; home\n\n.call bio_get_version\n.status");
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(json_lines(good.out).size(), 3U) << good.out;
    EXPECT_THAT(good.out, Not(HasSubstr("jovu>")));

    const Ended bad = jovu({"shell"}, "G28\nG999\nG28\n");
    EXPECT_EQ(bad.status, 6);
    EXPECT_THAT(bad.err, HasSubstr("jovu: line 2: device refused line 1 with result 2: G999\n"));
    EXPECT_EQ(requests(device_, "gcode_process_command"), 3);
    EXPECT_EQ(jovu({"shell"}, "G28\n.call gpio_get_raw gpio=x\n.quit\n").status, 2);
    EXPECT_EQ(jovu({"shell"}, ".shell\n").status, 2);
    EXPECT_EQ(jovu({"shell"}, ".help .\n").status, 2);
    EXPECT_EQ(jovu({"shell"}, ".quit\nG999\n").status, 0);
}

}  // namespace
}  // namespace test
