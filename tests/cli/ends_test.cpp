/// @file
/// The end of the program: the exit code and the line of the error.
#include <csignal>
#include <filesystem>

#include "cli_test.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

/// A failure prints one line on standard error and nothing on standard output.
void expect_error(const Ended& ended, int status, const std::string& what) {
    EXPECT_EQ(ended.status, status) << ended.err;
    EXPECT_THAT(ended.out, IsEmpty());
    EXPECT_THAT(ended.err, testing::StartsWith("jovu: "));
    EXPECT_THAT(ended.err, HasSubstr(what));
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
}

TEST(Ends, WrongUsageNamesWhatIsWrong) {
    const struct {
        std::vector<std::string> args;
        const char* named;
    } rows[] = {
        {{}, "no command"},
        {{"frobnicate"}, "frobnicate"},
        {{"status", "--frobnicate"}, "--frobnicate"},
        {{"status", "--device"}, "--device"},
        {{"list", "--wait-device", "soon"}, "soon"},
        {{"status", "--interval", "1"}, "--watch"},
        {{"status", "--watch", "--interval", "-1"}, "-1"},
        {{"status", "--watch", "--interval", "0.09"}, "--interval takes at least 100 ms: 0.09"},
        {{"push"}, "FILE"},
        {{"gcode"}, "LINE"},
        {{"gcode", "-f", "file", "G28"}, "--file"},
        {{"gcode", "G28", "G28\nG1 X10"}, "G28\\nG1 X10"},
        {{"gcode", "G28", "G28\rG1 X10"}, "G28\\rG1 X10"},
        {{"call"}, "NAME"},
        {{"call", "gpio_get_rww", "gpio=1"}, "gpio_get_rww"},
        {{"commands", "gpio"}, "gpio"},
    };
    const JovuDeviceAddress device = plug();
    for (const auto& row : rows) {
        expect_error(jovu(row.args), 2, row.named);
    }
    EXPECT_EQ(stats(device)["opens"], 0) << "the device was not even looked for";
    EXPECT_EQ(jovu({"commands", "gpio_output_set"}).out,
              "gpio_output_set(pin: gpio_name_t, value: bool) -> void\nSet an output; index 4.\n\n"
              "Arguments:\n  pin    gpio_name_t  0 to 4294967295\n  value  bool         0 or 1\n");
    EXPECT_EQ(jovu({"commands", "sd_mmc_get_storage_info"}).out,
              "sd_mmc_get_storage_info() -> storage_info_t\n"
              "Read the size of the SD store; index 59.\n\nResult:\n"
              "  total_size   unsigned int  0 to 4294967295\n"
              "  block_count  unsigned int  0 to 4294967295\n"
              "  block_size   unsigned int  0 to 4294967295\n");
}

TEST(Ends, WithoutADevice) {
    expect_error(jovu({"status"}), 3, "no device");
    expect_error(jovu({"--json", "info"}), 3, "no device");
    expect_error(jovu({"--wait-device", "0.2", "status"}), 3, "no device");
    plug("1:3 product=0003");
    expect_error(jovu({"status"}), 3, "of another kind ('jovu list' shows them)");
    plug("1:4 product=00df");
    expect_error(jovu({"status"}), 3, "1:4 is in DFU mode ('jovu update IMAGE' writes");
    plug("1:2");
    expect_error(jovu({"status", "-d", "9:9"}), 3, "no such device: 9:9 (connected: 1:2)");
    expect_error(jovu({"status", "-d", "1:4"}), 3, "1:4 is in DFU mode");
    expect_error(jovu({"--wait-device", "0.2", "-d", "7:7", "status"}), 3, "no such device: 7:7");
    sim("fault 1:2 open");
    expect_error(jovu({"status"}), 3, "cannot open 1:2: /dev/bus/usb/001/002: Is a directory");
    expect_error(jovu({"status", "-d", "9:9"}), 3, "no such device: 9:9 (--wait-device SECONDS");
    plug("1:7");
    plug("1:6");
    expect_error(jovu({"gcode", "G28", "--json"}), 4, "1:6, 1:7 (choose one with -d BUS:ADDR)");
    EXPECT_EQ(jovu({"-d", "001:007", "status"}).status, 0);
}

TEST(Ends, WhenTheDeviceGoesAwayInAnExchange) {
    const JovuDeviceAddress device = plug();
    sim("fault " + name(device) + " silent always");
    Program program({"gcode", "G28"});
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    sim("unplug " + name(device));
    EXPECT_EQ(program.finish(), 5);
    EXPECT_THAT(program.err(), HasSubstr("jovu: line 1 (G28) to " + name(device) + " failed"));
    EXPECT_THAT(program.out(), IsEmpty()) << "the library's diagnostics do not belong here";
    EXPECT_THAT(program.err(), HasSubstr("JovuMessage"));
}

TEST(Ends, WhenAFileIsOfNoUse) {
    plug();
    const TemporaryFile empty("empty", "");
    const TemporaryFile binary("binary.gcode", std::string("G28\nG1\0X\n", 9));
    const std::string missing = empty.path() + "-missing";
    expect_error(jovu({"push", missing}), 7, missing);
    expect_error(jovu({"push", testing::TempDir()}), 7, "directory");
    expect_error(jovu({"push", "/dev/null"}), 7, "/dev/null");
    expect_error(jovu({"push", empty.path()}), 7, "empty");
    expect_error(jovu({"gcode", "-f", missing}), 7, missing);
    EXPECT_EQ(jovu({"gcode", "-f", binary.path()}).status, 7);
    EXPECT_EQ(jovu({"gcode", "-"}, std::string(200000, 'G')).status, 7);
    expect_error(jovu({"gcode", "-"}, "; part\rG28\rG1 X10\r\n"), 7, "part\\rG28");
}

TEST(Ends, WhenTheOutputCannotBeWritten) {
    plug();
    expect_error(jovu({"status"}, "", Out::full_disk), 7, "No space left");
    expect_error(jovu({"--help"}, "", Out::full_disk), 7, "No space left");
    expect_error(jovu({"status", "--json"}, "", Out::none), 7, "cannot write");
    for (const auto& command : {"status", "events"}) {
        const Ended ended = jovu({command}, "", Out::closed);
        EXPECT_EQ(ended.status, 141) << command;
        EXPECT_THAT(ended.err, IsEmpty()) << command;
    }
}

/// Interrupts a program and expects its end long before the 15 seconds of an exchange.
void expect_interrupted(Program& program, const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    program.signal(SIGINT);
    EXPECT_EQ(program.finish(), 130) << program.err();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(12));
    EXPECT_THAT(program.err(),
                what.empty() ? testing::Matcher<std::string>(IsEmpty()) : HasSubstr(what));
}

TEST(Interrupt, EndsWhatGoesOnForEver) {
    const JovuDeviceAddress device = plug();
    Program watch({"status", "--watch", "--interval", "0.1"});
    ASSERT_TRUE(watch.writes("idle"));
    expect_interrupted(watch, "");

    Program typed({"gcode", "-"});
    typed.type("G28\nM1");
    ASSERT_TRUE(typed.writes("G28"));
    expect_interrupted(typed, "");
    EXPECT_EQ(requests(device, "gcode_process_command"), 1);

    const TemporaryFile huge("huge.gcode", "");
    std::filesystem::resize_file(huge.path(), std::uintmax_t{1} << 40U);
    const int before = status_requests(device);
    Program measuring({"push", huge.path()});
    ASSERT_TRUE(eventually([&] { return status_requests(device) > before; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    expect_interrupted(measuring, "nothing was sent");

    Program waiting({"status", "-d", "9:9", "--wait-device", "1000"});
    ASSERT_TRUE(eventually([&] { return stats(device)["opens"] >= 8; }));
    expect_interrupted(waiting, "");
}

TEST(Interrupt, EndsAnExchangeThatIsNotAnswered) {
    const JovuDeviceAddress device = plug();
    sim("fault " + name(device) + " silent always");
    Program gcode({"gcode", "G28", "G90"});
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    expect_interrupted(gcode, "line 1 (G28) may or may not have been carried out");
    EXPECT_EQ(requests(device, "gcode_process_command"), 1);

    Program list({"list", "--json"});
    ASSERT_TRUE(eventually([&] { return requests(device, "bio_get_version") == 1; }));
    list.signal(SIGTERM);
    EXPECT_EQ(list.finish(), 130);
    EXPECT_THAT(list.out(), IsEmpty());

    Program status({"status"});
    ASSERT_TRUE(eventually([&] { return stats(device)["job"]["requests"]["status"] == 1; }));
    expect_interrupted(status, "");
}

}  // namespace
}  // namespace test
