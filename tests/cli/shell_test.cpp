// SPDX-License-Identifier: Apache-2.0

/// @file
/// The shell, at a pseudo-terminal and with a script.
#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

constexpr const char* kCtrlC = "\x03";
constexpr const char* kCtrlD = "\x04";
const std::string kPrompt = "\r\njovu> ";

/// A shell at a terminal, with a history of its own.
class Shell : public testing::Test {
protected:
    Shell() {
        setenv("XDG_STATE_HOME", state_.c_str(), 1);
        setenv("HOME", state_.c_str(), 1);
    }
    ~Shell() override { std::filesystem::remove_all(state_); }

    void start() {
        shell_.emplace("shell", Out::console);
        ASSERT_TRUE(shell_->writes("connected: 1:2, serial JVS001002" + kPrompt)) << shell_->out();
    }
    /// Types something and waits for output after it.
    /// @param typed  after "sim ", a request to the simulator instead.
    /// @param behind output that must follow that, at any distance.
    testing::AssertionResult answers(const std::string& typed, const std::string& expected,
                                     const std::string& behind = "") {
        const std::size_t before = shell_->out().size();
        typed.find("sim ") == 0 ? (void)sim(typed.substr(4)) : shell_->type(typed);
        const bool came = eventually([&] {
            shell_->writes("never written", std::chrono::milliseconds(1));
            const std::size_t found = shell_->out().find(expected, before);
            return shell_->out().find(behind, found) != std::string::npos;
        });
        if (came) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "not written: " << expected << "\nbut: " << shell_->out().substr(before);
    }
    Ended leave() {
        shell_->type(kCtrlD);
        return shell_->finish();
    }

    const JovuDeviceAddress device_ = plug("1:2");
    const std::string state_ = testing::TempDir() + std::to_string(getpid()) + "-state";
    std::optional<Program> shell_;
};

TEST_F(Shell, CompletesNamesAndKeys) {
    start();
    EXPECT_TRUE(answers(".ca\tservo_dc_config_s\tservo_name=0 \tpwm_cap\t\t",
                        "config.pwm_cap=       config.pwm_cap_time=\r\n"));
    EXPECT_TRUE(answers(kCtrlC, "^C\r\njovu> "));
    for (const char* const file : {"/a\x1b[2Jc", "/a\xE2\x80\xAEz"})
        std::ofstream(state_ + file).close();
    EXPECT_TRUE(answers(".push " + state_ + "/a\t", "a\\x1b[2Jc  ", "a\\u202ez\r\n"));
    EXPECT_TRUE(answers("\xE2\x80\xAE", "\xEF\xBF\xBD"));
    shell_->type("\x15");  // Ctrl-U
    EXPECT_THAT(leave(), Exits(0, ""));
    EXPECT_THAT(shell_->out(), Not(AnyOf(HasSubstr("\x1b[2J"), HasSubstr("\xE2\x80\xAE"))));
}

TEST_F(Shell, RunsCommandsOverOneLinkAndGoesOnAfterErrorsAndInterrupts) {
    start();
    const int opens = stats(device_)["opens"];
    EXPECT_TRUE(answers("M114\r", "X:0.00 Y:0.00 Z:0.00 E:0.00" + kPrompt));
    EXPECT_TRUE(answers(".device\r", "connected: 1:2, serial JVS001002" + kPrompt));
    EXPECT_TRUE(answers(".device 7:7\r", kPrompt));
    EXPECT_TRUE(answers("G28\r", kPrompt));
    EXPECT_TRUE(answers(".device 1:2\r", "chosen: 1:2, serial JVS001002" + kPrompt));
    for (const char* typed : {"G999\r", ".frobnicate\r", ".call gpio_get_raw 'gpio=1\r"})
        EXPECT_TRUE(answers(typed, kPrompt));
    EXPECT_TRUE(answers(".call gcode_process_command 'command=M117 a \"b\"'\r", "0" + kPrompt));
    EXPECT_TRUE(answers("M117 abandoned", "abandoned"));
    EXPECT_TRUE(answers(kCtrlC, "^C\r\njovu> "));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // else it is the same Ctrl-C

    EXPECT_EQ(stats(device_)["opens"], opens);
    sim("fault 1:2 silent always");
    shell_->type(".call heater_turn_on\r");
    ASSERT_TRUE(eventually([&] { return requests(device_, "heater_turn_on") == 1; }));
    EXPECT_TRUE(answers(kCtrlC, "^C\r\njovu> "));
    EXPECT_EQ(stats(device_)["opens"], opens) << "the exchange is cancelled, the device stays open";
    sim("fault 1:2 clear");
    EXPECT_TRUE(answers(".call bio_get_version\r", "1.0.0" + kPrompt));
    EXPECT_EQ(stats(device_)["opens"], opens);
    EXPECT_EQ(stats(device_)["message"]["display"], "a \"b\"");
    EXPECT_EQ(protocol_violations(device_), 0);

    shell_->signal(SIGTERM);
    const Ended ended = shell_->finish();
    for (const char* told :
         {"jovu: device refused line 1 with result 2: G999", "jovu: no such command: .frobnicate",
          "jovu: a quote is not closed", "jovu: no such device: 7:7",
          "jovu: interrupted: heater_turn_on may or may not have been carried out"})
        EXPECT_THAT(ended, Exits(130, told));
}

TEST_F(Shell, ShowsEventsWithoutHarmToTheLine) {
    start();
    EXPECT_TRUE(answers("M117 caf\xC3\xA9", "caf\xC3\xA9"));
    EXPECT_TRUE(answers("sim event 1:2 something happened",
                        "  something happened\r\njovu> M117 caf\xC3\xA9"));
    EXPECT_THAT(shell_->out(), Not(HasSubstr("\x1b[0A")));
    EXPECT_TRUE(answers("\r", "ok       M117 caf\xC3\xA9" + kPrompt));
    EXPECT_TRUE(answers(std::string(90, ';'), ";;;"));  // To the last column.
    EXPECT_TRUE(answers("sim event 1:2 above two rows", "\x1b[1A\r\x1b[J", "above two rows\r\n"));
    EXPECT_TRUE(answers("\r", kPrompt));
    EXPECT_TRUE(answers(".events off\r", kPrompt));
    sim("event 1:2 unheard");
    EXPECT_TRUE(answers(".call bio_get_version\r", "1.0.0" + kPrompt));
    EXPECT_TRUE(answers("M115\r", kPrompt)) << "what a line prints is shown all the same";
    EXPECT_TRUE(answers(".events on\r", kPrompt));
    EXPECT_TRUE(answers("sim event 1:2 heard again", "heard again\r\n"));
    EXPECT_THAT(leave(), Exits(0, ""));
    EXPECT_THAT(shell_->out(), Not(HasSubstr("unheard")));
    EXPECT_THAT(shell_->out(), ContainsRegex("\r.\\[J[0-9:.]+  something happened"));
    EXPECT_EQ(stats(device_)["message"]["display"], "caf\xC3\xA9");
}

TEST_F(Shell, KeepsItsHistory) {
    start();
    EXPECT_TRUE(answers("M117 one\r", kPrompt));
    EXPECT_TRUE(answers(" M117 secret\r", kPrompt));
    EXPECT_TRUE(answers(".call none auto_connect_key=secret\r", kPrompt));
    EXPECT_THAT(leave(), Exits(0, ""));
    start();
    EXPECT_TRUE(answers("\x1b[A", "M117 one"));
    EXPECT_TRUE(answers("-two\r", "ok       M117 one-two"));
    EXPECT_TRUE(answers(".quit\r", ".quit"));
    EXPECT_THAT(shell_->finish(), Exits(0, ""));
    const auto permissions = std::filesystem::status(state_ + "/jovu/history").permissions();
    EXPECT_EQ(permissions, std::filesystem::perms(0600));
}

TEST_F(Shell, KeepsWhatIsTypedAheadOfItsPrompt) {
    sim("fault 1:2 delay 300");
    shell_.emplace("shell -d 1:2", Out::console);
    ASSERT_TRUE(shell_->writes("Ctrl-D leaves."));
    EXPECT_FALSE(shell_->in_line_mode());
    shell_->type("M117 one\r");
    ASSERT_TRUE(eventually([&] { return requests(device_, "gcode_process_command") == 1; }));
    shell_->type(std::string("M117 two\r.gcode -\rM117 three\r") + kCtrlD + "M117 four\r" + kCtrlD);
    EXPECT_THAT(shell_->finish(), Exits(0, ""));
    EXPECT_THAT(stats(device_)["message"]["gcode"],
                testing::ElementsAre("M117 one", "M117 two", "M117 three", "M117 four"));
    EXPECT_TRUE(shell_->in_line_mode());
    // Nobody could continue it: SIGTSTP does not stop it.
    for (const auto& [stop, number] : {std::pair{SIGTSTP, SIGQUIT}, {SIGCONT, SIGUSR1}}) {
        start();
        EXPECT_TRUE(eventually([&, stop = stop] {
            shell_->signal(stop);
            return shell_->writes("\r\x1b[Jjovu> ", std::chrono::milliseconds(50));
        }));
        EXPECT_FALSE(shell_->in_line_mode());
        shell_->signal(number);
        EXPECT_EQ(shell_->finish().status, number == SIGQUIT ? 130 : -number);
        EXPECT_TRUE(shell_->in_line_mode()) << number;
    }
}

TEST_F(Shell, SendsLinesToTheMachineTheyAreMeantFor) {
    start();
    EXPECT_TRUE(answers("sim replug 1:2", "1:2, serial JVS001002"));
    EXPECT_TRUE(answers("G28\r", "ok       G28"));
    EXPECT_TRUE(answers("sim plug 1:5", "connected: 1:5, another device"));
    sim("fault 1:5 silent always");
    EXPECT_TRUE(answers("sim unplug 1:2", "disconnected: 1:2, serial JVS001002"));
    EXPECT_TRUE(eventually([] { return requests({1, 5}, "bio_get_serial") == 1; }));
    EXPECT_TRUE(answers("sim unplug 1:5", "disconnected: 1:5\r\n"));  // not identified yet
    EXPECT_TRUE(answers("sim plug 1:9", "connected: 1:9, serial JVS001009, another device"));
    EXPECT_TRUE(answers("G28\rG1 X10\r", kPrompt, kPrompt));
    EXPECT_TRUE(answers("sim plug 1:7 serial=JVS001002",
                        "connected: 1:7, serial JVS001002, the device that was at 1:2"));
    EXPECT_TRUE(answers(".device 1:9\r", "chosen: 1:9, serial JVS001009" + kPrompt));
    EXPECT_EQ(requests({1, 9}, "gcode_process_command"), 0);
    EXPECT_TRUE(answers("G28\r", "ok       G28"));
    sim("unplug 1:7");
    EXPECT_TRUE(answers("sim plug 1:7 serial=THIRD", "connected: 1:7, another device"));
    EXPECT_TRUE(answers("G28\r", "ok       G28"));
    EXPECT_EQ(requests({1, 7}, "bio_get_serial"), 0) << "no line is for it";
    EXPECT_TRUE(answers(".call heater_turn_on -d 1:7\r", kPrompt));
    EXPECT_EQ(requests({1, 7}, "heater_turn_on"), 0);
    const Ended ended = leave();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.out, Not(HasSubstr("1:5, serial")));
    for (const char* const told : {"1:9, serial JVS001009: lines go to 1:2, serial JVS001002",
                                   "1:7, serial THIRD: lines go to 1:7, serial JVS001002"})
        EXPECT_THAT(ended.err, HasSubstr(std::string("jovu: not sent to ") + told));

    Program script("shell -d 1:9");
    script.type("G28\n");
    sim("fault 1:7 delay 1000");  // keeps the shell from looking while the device is swapped
    script.type(".call -d 1:7 bio_get_version\n");
    ASSERT_TRUE(eventually([&] { return requests({1, 7}, "bio_get_version") == 1; }));
    sim("unplug 1:9");
    plug("1:9 serial=FOURTH");
    script.type("G28\n");
    EXPECT_THAT(script.finish(), Exits(3, "line 3: not sent to 1:9, serial FOURTH: lines go to"));
}

TEST_F(Shell, ReadsAScriptUpToTheFirstFailure) {
    const Ended good = jovu("shell --json", "G28 ; home\r\n\n.call bio_get_version\n.status");
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_THAT(good.out, MatchesRegex("(\\{[^\n]*\\}\n){3}"));
    EXPECT_EQ(good.err, "");
    const std::string help = jovu("shell", ".help\n").out;
    EXPECT_THAT(help, HasSubstr("\n  .list                  List"));
    EXPECT_THAT(help, HasSubstr("\n  .events on|off         Show"));
    EXPECT_THAT(help, Not(AnyOf(HasSubstr("  .shell"), HasSubstr(".events  "))));
    const std::tuple<const char*, int, const char*> rows[] = {
        {"G28\nG999\nG28\n", 6, "jovu: line 2: device refused line 1 with result 2: G999\n"},
        {"G28\n.call gpio_get_raw gpio=x\n.quit\n", 2, ""},
        {"G28\rG28\n", 2, ""},
        {".shell\n", 2, ""},
        {"quit\n", 2, "jovu: line 1: not sent: quit (did you mean .quit? A leading blank sends it"},
        {"exit\n", 2, "not sent: exit (did you mean .quit?"},
        {"shell G28\n", 2, "not sent: shell (.help"},
        {" status\n", 6, "refused"},
        {".push\n", 2, "(see '.help push')"},
        {".help .\n", 2, ""},
        {".help .quit\n", 0, "  .quit                  Leave\n"},
        {".help events\n", 0, "  .events on|off "},
        {".quit\nG999\n", 0, ""},
        {".gcode -\nG28\nG999\n", 6, ""},
    };
    for (const auto& [input, status, told] : rows)
        EXPECT_THAT(jovu("shell", input), Exits(status, told)) << input;
    EXPECT_EQ(requests(device_, "gcode_process_command"), 7);
}

}  // namespace
}  // namespace test
