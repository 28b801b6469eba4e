// SPDX-License-Identifier: Apache-2.0

/// @file
/// The end of the program: the exit code and the line of the error.
#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

/// A failure prints one line on standard error and nothing on standard output.
void expect_error(const Ended& ended, int status, const std::string& what) {
    EXPECT_THAT(ended, Exits(status, what));
    EXPECT_THAT(ended.out, IsEmpty());
    EXPECT_THAT(ended.err, MatchesRegex("jovu: [^\n]*\n"));
}

TEST(Ends, WrongUsageNamesWhatIsWrong) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "no command"},
        {"frobnicate", "frobnicate"},
        {"status --frobnicate", "--frobnicate"},
        {"status --device", "--device"},
        {"list --wait-device soon", "soon"},
        {"list --wait-device 604801", "604801"},
        {"list --wait-device nan", "not a time in seconds: nan"},
        {"list --wait-device 5s", "not a time in seconds: 5s"},
        {"status --interval 1", "--watch"},
        {"status --watch --interval -1", "not a time in seconds: -1"},
        {"status --watch --interval 0.09", "--interval takes at least 100 ms: 0.09"},
        {"push", "FILE or --attach is needed (see 'jovu help push')"},
        {"push --attach file", "FILE or --attach"},
        {"help pus", "no such command: pus (did you mean push?)"},
        {"wait temperature 1x", "not a temperature: 1x"},
        {"-v -q status", "--verbose and --quiet exclude"},
        {"update", "IMAGE"},
        {"gcode", "LINE"},
        {"gcode -f file G28", "--file"},
        {"gcode G28 \"G28\nG1 X10\"", "G28\\nG1 X10"},
        {"gcode G28 \"G28\rG1 X10\"", "G28\\rG1 X10"},
        {"call", "NAME"},
        {"call gpio_get_rww gpio=1", "gpio_get_rww"},
        {"commands gpio", "gpio"},
        {"trace 99999", "99999"},
        {"trace 0 --move inf", "not a distance: inf (see 'jovu help trace')"},
    };
    const JovuDeviceAddress device = plug();
    for (const auto& [line, named] : rows)
        expect_error(jovu(line), 2, named);
    EXPECT_EQ(stats(device)["opens"], 0) << "the device was not even looked for";
    EXPECT_EQ(jovu("commands gpio_output_set").out,
              "gpio_output_set(pin: gpio_name_t, value: bool) -> void\nSet an output; index 4.\n\n"
              "Arguments:\n  pin    gpio_name_t  0 to 4294967295\n  value  bool         0 or 1\n");
    EXPECT_EQ(jovu("help push").out, jovu("push --help").out);
    EXPECT_THAT(jovu("commands sd_mmc_get_storage_info"),
                Exits(0,
                      "index 59.\n\nResult:\n"
                      "  total_size   unsigned int  0 to 4294967295\n"
                      "  block_count  unsigned int  0 to 4294967295\n"));
}

TEST(Ends, WithoutADevice) {
    // What is done to the bus, the command, its error.
    const std::tuple<const char*, const char*, int, const char*> rows[] = {
        {"", "status", 3, "no device"},
        {"", "--wait-device 0 --json info", 3, "no device"},
        {"", "--wait-device 0.2 status", 3, "no device"},
        {"plug 1:3 product=0003", "status", 3, "of another kind ('jovu list' shows them)"},
        {"plug 1:4 product=00df", "status", 3,
         "1:4 serial JVS001004 is in DFU mode ('jovu update IMAGE' writes"},
        {"plug 1:2", "status -d 9:9", 3, "no such device: 9:9 (attached: 1:2 serial JVS001002)"},
        {"", "status -d 1:4", 3, "1:4 serial JVS001004 is in DFU mode"},
        {"", "--wait-device 0.2 -d 7:7 status", 3, "no such device: 7:7"},
        {"fault 1:2 open", "status", 3,
         "cannot open 1:2 serial JVS001002: /dev/bus/usb/001/002: Is a directory"},
        {"", "wait -d 9:9 --timeout 0.2 device", 8, "timed out waiting for a device: no such"},
        {"plug 1:7", "-d 9:9 info", 3, "no such device: 9:9"},
        {"plug 1:6", "gcode G28 --json", 4,
         "1:6 serial JVS001006, 1:7 serial JVS001007 (choose one with -d, -s or --port)"},
    };
    for (const auto& [request, line, status, told] : rows) {
        if (*request != 0) sim(request);
        expect_error(jovu(line), status, told);
    }
    EXPECT_THAT(jovu("--wait-device 604800 -d 001:007 status"), Exits(0, "1:7"));
}

TEST(Ends, WhenAFileOrAProgramIsOfNoUse) {
    const JovuDeviceAddress device = plug();
    const TemporaryFile empty("empty", "");
    const TemporaryFile binary("binary.gcode", std::string("G28\nG1\0X\n", 9));
    const std::string missing = empty.path() + "-missing";
    const std::pair<std::string, std::string> rows[] = {
        {"push " + missing, missing},
        {"push " + testing::TempDir(), "directory"},
        {"push /dev/null", "/dev/null"},
        {"push " + empty.path(), "empty"},
        {"update --yes " + missing, missing},
        {"trace 0 --csv " + missing + "/trace.csv", missing},
        {"gcode -f " + missing, missing},
        {"trace 0 --plot " + testing::TempDir(), "directory"}};
    for (const auto& [line, named] : rows)
        expect_error(jovu(line), 7, named);
    EXPECT_THAT(jovu("gcode -f " + binary.path()), Exits(7, ""));
    EXPECT_THAT(jovu("gcode -", std::string(200000, 'G')), Exits(7, ""));
    expect_error(jovu("gcode -", "; part\rG28\rG1 X10\r\n"), 7, "part\\rG28");

    const TemporaryFile image("image", std::string(5000, '\xFF'));
    const std::string path = std::getenv("PATH");
    setenv("PATH", testing::TempDir().c_str(), 1);
    const Ended update = jovu("update --yes " + image.path());
    const Ended trace = jovu("trace 0 --plot " + image.path());
    setenv("PATH", path.c_str(), 1);
    expect_error(update, 1, "needs dfu-util, which is not installed");
    expect_error(trace, 1, "--plot needs gnuplot, which is not installed");
    EXPECT_EQ(requests(device, "servo_dc_trace_enable") + requests(device, "Enter_dfu_mode"), 0);
}

TEST(Ends, WhenTheTimeIsOver) {
    const JovuDeviceAddress device = plug();
    expect_error(jovu("wait state printing --timeout 3"), 8,
                 "the state printing: 1:2 serial JVS001002  idle");
    sim("fault " + name(device) + " silent always");
    const std::tuple<const char*, int, const char*> rows[] = {
        {"info --timeout 0.3", 5,
         "version request to 1:2 serial JVS001002 failed: no response within 300 ms"},
        {"status --timeout 0.3", 5, "status request to 1:2 serial JVS001002 failed: timed out"},
        {"wait state idle --timeout 0.3", 8,
         "the state idle: 1:2 serial JVS001002 has sent no status report"},
        {"wait state idle --timeout 0.3 --wait-device 5 -d 1:9", 8,
         "waiting for a device: no such"},
    };
    for (const auto& [line, status, told] : rows)
        expect_error(jovu(line), status, told);
}

TEST(Ends, WhenTheOutputCannotBeWritten) {
    plug();
    expect_error(jovu("status", "", Out::full_disk), 7, "No space left");
    expect_error(jovu("--help", "", Out::full_disk), 7, "No space left");
    expect_error(jovu("status --json", "", Out::none), 7, "cannot write");
    for (const auto& command : {"status", "events"}) {
        const Ended ended = jovu(command, "", Out::closed);
        EXPECT_EQ(ended.status, 141) << command;
        EXPECT_THAT(ended.err, IsEmpty()) << command;
    }
}

/// Interrupts a program and expects its end long before the 15 seconds of an exchange.
Ended expect_interrupted(Program& program, const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    program.signal(SIGINT);
    Ended ended = program.finish();
    EXPECT_THAT(ended, Exits(130, what));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(12));
    EXPECT_EQ(ended.err.empty(), what.empty()) << ended.err;
    return ended;
}

TEST(Interrupt, EndsWhatGoesOnForEver) {
    const JovuDeviceAddress device = plug();
    Program watch("status --watch --interval 0.1", Out::terminal);
    ASSERT_TRUE(watch.writes("\x1b[11A\r\x1b[2KDevice        1:2")) << "drawn again";
    respond_to_next_request(device, {{"status", {{"state", "\x1b]0;title\x07 \u009b2J"}}}});
    ASSERT_TRUE(watch.writes("\\x1b]0;title\\x07 \\u009b2J"));
    EXPECT_THAT(expect_interrupted(watch, "").out, Not(HasSubstr("\x1b]0")));
    sim("fault " + name(device) + " clear");

    Program typed("gcode -");
    typed.type("G28\nM1");
    ASSERT_TRUE(typed.writes("G28"));
    expect_interrupted(typed, "");
    EXPECT_EQ(requests(device, "gcode_process_command"), 1);

    const TemporaryFile huge("huge.gcode", "");
    std::filesystem::resize_file(huge.path(), std::uintmax_t{1} << 40U);
    const int before = status_requests(device);
    Program measuring("push " + huge.path());
    ASSERT_TRUE(eventually([&] { return status_requests(device) > before; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    expect_interrupted(measuring, "nothing was sent");

    sim("fault " + name(device) + " claim EBUSY always");
    Program waiting("status --wait-device 1000");
    ASSERT_TRUE(eventually([&] { return stats(device)["refused_claims"] > 0; }));
    expect_interrupted(waiting, "");
    sim("fault " + name(device) + " clear");

    Program plain("status --watch --interval 0.1");
    ASSERT_TRUE(plain.writes("idle"));
    expect_interrupted(plain, "");
}

TEST(Interrupt, EndsAnExchangeThatIsNotAnsweredAsAnUnplugDoes) {
    const JovuDeviceAddress device = plug();
    sim("fault " + name(device) + " silent always");
    Program gcode("gcode G28 G90");
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    expect_interrupted(gcode, "line 1 (G28) may or may not have been carried out");
    EXPECT_EQ(requests(device, "gcode_process_command"), 1);

    Program list("list --json");
    ASSERT_TRUE(eventually([&] { return requests(device, "bio_get_version") == 1; }));
    list.signal(SIGTERM);
    EXPECT_THAT(list.finish(), testing::AllOf(Exits(130, ""), testing::Field(&Ended::out, "")));

    Program status("status");
    ASSERT_TRUE(eventually([&] { return status_requests(device) == 1; }));
    expect_interrupted(status, "");

    Program cut_off("gcode -v G28");
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 2; }));
    sim("unplug " + name(device));
    const Ended ended = cut_off.finish();
    EXPECT_THAT(ended, Exits(5, "jovu: line 1 (G28) to " + name(device) + " serial "));
    EXPECT_THAT(ended, Exits(5, "JovuMessage")) << "the library's diagnostics";
    EXPECT_THAT(ended.out, IsEmpty());
}

}  // namespace
}  // namespace test
