// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu monitor` at a pseudo-terminal.
#include <csignal>

#include "cli_test.h"

namespace test {
namespace {

TEST(Monitor, ShowsAllControllersAndSendsOnlyWhatIsConfirmed) {
    const JovuDeviceAddress device = plug("1:2");
    const JovuDeviceAddress silent = plug("1:3");
    sim("fault 1:3 silent always");
    const auto start = std::chrono::steady_clock::now();
    Program monitor("monitor", Out::console);
    const auto answers = [&](const char* keys, const std::string& expected) {
        const std::size_t before = monitor.out().size();
        monitor.type(keys);
        return eventually([&] {
            monitor.writes("never written", std::chrono::milliseconds(1));
            return monitor.out().find(expected, before) != std::string::npos;
        });
    };
    const auto sent = [](JovuDeviceAddress to, const char* type) {
        return stats(to)["job"]["requests"].value(type, 0);
    };
    EXPECT_TRUE(monitor.writes("JVS001002"));
    EXPECT_TRUE(monitor.writes("does not respond"));
    EXPECT_FALSE(monitor.in_line_mode());
    sim("fault 1:2 silent always");  // The reports below are its only ones.
    const json printing = {{"status", {{"state", "printing"}}}, {"job", {{"file", "a.gcode"}}}};
    send_report(device, printing);
    EXPECT_TRUE(monitor.writes("a.gcode"));
    sim("event 1:2 \x1b]0;evil");
    EXPECT_TRUE(monitor.writes("\\x1b]0;evil"));

    EXPECT_TRUE(answers("p", "pause the job of 1:2 (JVS001002)? y/n"));
    EXPECT_TRUE(answers("n", "pause: nothing was sent"));
    EXPECT_EQ(sent(device, "pause"), 0);
    monitor.type("py");
    EXPECT_TRUE(eventually([&] {
        send_report(device, printing);
        return monitor.writes("was sent to 1:2 (JVS001002)", std::chrono::milliseconds(50));
    }));
    EXPECT_EQ(sent(device, "pause"), 1);
    EXPECT_TRUE(answers("\x1bOBa", "abort the job of 1:3 (serial number unknown)? y/n"));
    EXPECT_TRUE(answers("y", "abort was sent to 1:3"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(14))
        << "the exchange for its serial number, which takes 15 s, delayed the others";
    EXPECT_EQ(sent(silent, "abort"), 1);
    EXPECT_TRUE(answers("a", "abort the job of 1:3"));
    sim("unplug 1:3");
    EXPECT_TRUE(answers("", "1:3 (serial number unknown) was unplugged: nothing was sent"));
    plug("1:7");
    EXPECT_TRUE(monitor.writes("JVS001007"));
    monitor.type("q");
    EXPECT_THAT(monitor.finish(), Exits(0, "\x1b[?1049l"));
    EXPECT_THAT(monitor.out(), Not(HasSubstr("\x1b]0;")));
    EXPECT_TRUE(monitor.in_line_mode());
}

TEST(Monitor, LeavesTheTerminalAsItWas) {
    EXPECT_THAT(jovu("monitor"), Exits(2, "'jovu status --watch --json'"));
    // What is typed, a signal, the exit code, and how often the screen is left.
    const std::tuple<const char*, int, int, std::size_t> rows[] = {
        {"\x03", 0, 130, 1},   {"\x13q", 0, 0, 1},  // Ctrl-S does not hold the terminal.
        {"", SIGTERM, 130, 1}, {"", SIGUSR1, -SIGUSR1, 1}, {"", SIGABRT, -SIGABRT, 1},
        {"", SIGTSTP, 0, 2}};  // Nobody could continue it: it does not stop.
    for (const auto& [keys, number, status, times] : rows) {
        Program monitor("monitor -d 1:9", Out::console);
        ASSERT_TRUE(monitor.writes("waiting for 1:9"));
        EXPECT_FALSE(monitor.in_line_mode());
        monitor.type(keys);
        monitor.signal(number);
        if (number == SIGTSTP) {
            EXPECT_TRUE(monitor.writes("\x1b[?1049l"));
            monitor.type("q");
        }
        EXPECT_EQ(monitor.finish().status, status);
        for (const char* const string : {"\x1b[?1049h", "\x1b[?1049l"}) {
            std::size_t count = 0;
            for (std::size_t at = 0; (at = monitor.out().find(string, at)) != std::string::npos;
                 ++at)
                ++count;
            EXPECT_EQ(count, times) << number;
        }
        EXPECT_TRUE(monitor.in_line_mode()) << number;
    }
}

}  // namespace
}  // namespace test
