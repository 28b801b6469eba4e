/// @file
/// Devices: found, listed, and their state, events and gcode.

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include "cli_test.h"
#include "posix/files.h"

namespace test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(List, ShowsWhatIsOpenedAndWhatIsNot) {
    plug("1:3");
    plug("1:2");
    plug("1:4 product=0003");
    const Ended text = jovu({"list"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_THAT(text.out, HasSubstr("1:2  serial JVS001002  version 1.0.0\n"
                                    "1:3  serial JVS001003  version 1.0.0\n"
                                    "1 attached of type 2, not opened (port "));

    const json list = json::parse(jovu({"list", "--json"}).out);
    EXPECT_EQ(list["devices"].size(), 2U);
    EXPECT_EQ(list["devices"][1],
              json({{"device", "1:3"}, {"serial", "JVS001003"}, {"version", "1.0.0"}}));
    EXPECT_EQ(list["not_opened"][0]["type"], 2);
    EXPECT_EQ(list["not_opened"][0]["count"], 1);
}

TEST(List, NamesWhatHasADeviceOpen) {
    plug("1:2");
    const std::string path = "/dev/bus/usb/001/002";
    const std::string program = "cli_tests .process " + std::to_string(getpid());
    const auto named = testing::ContainsRegex(path + " is in use by .*" + program);
    const jovu_cli::FileDescriptor node(open(path.c_str(), O_RDWR | O_CLOEXEC));
    unsigned interface = 1;
    ASSERT_EQ(ioctl(node.get(), USBDEVFS_CLAIMINTERFACE, &interface), 0);
    EXPECT_THAT(jovu({"info"}).err, testing::AllOf(HasSubstr("(it is attached, but "), named));
    interface = 0;
    ASSERT_EQ(ioctl(node.get(), USBDEVFS_CLAIMINTERFACE, &interface), 0);
    const Ended alone = jovu({"list", "--json"});
    EXPECT_EQ(alone.status, 3);
    EXPECT_THAT(alone.err, named);
    EXPECT_EQ(json::parse(alone.out)["not_opened"][0]["type"], 1);

    plug("1:3");
    const Ended both = jovu({"list"});
    EXPECT_EQ(both.status, 0) << both.err;
    EXPECT_THAT(both.out, HasSubstr("1 attached of type 1, not opened (among ports "));
    EXPECT_THAT(both.out, named);
    EXPECT_EQ(jovu({"--wait-device", "1000", "info"}).status, 0) << "waits for what cannot come";
}

TEST(Status, StartsTheConnectionAgainOnce) {
    const std::string refusal = "fault " + name(plug()) + " claim EBUSY 1 1";
    for (const int times : {1, 2}) {
        for (int i = 0; i < times; ++i)
            sim(refusal);  // The probe succeeds, the opening fails.
        const Ended ended = jovu({"status"});
        EXPECT_EQ(ended.status, times == 1 ? 0 : 3) << ended.err;
        EXPECT_THAT(ended.err, HasSubstr(times == 1 ? ": starting it again\n" : "ended again"));
    }
}

TEST(List, GoesOnWhenOneDeviceDoesNotAnswer) {
    const JovuDeviceAddress silent = plug();
    plug();
    sim("fault " + name(silent) + " silent always");
    Program program({"list", "--json"});
    ASSERT_TRUE(eventually([&] { return requests(silent, "bio_get_version") == 1; }));
    sim("unplug " + name(silent));
    EXPECT_EQ(program.finish(), 5);
    const json devices = json::parse(program.out())["devices"];
    EXPECT_TRUE(devices[0].contains("error"));
    EXPECT_EQ(devices[1]["serial"], "JVS001003");
}

TEST(WaitDevice, WaitsForOneToAppear) {
    Program any({"--wait-device", "60", "info"});
    plug("1:8");
    EXPECT_EQ(any.finish(), 0) << any.err();
    EXPECT_THAT(any.out(), HasSubstr("JVS001008"));

    Program chosen({"--wait-device", "60", "-d", "1:9", "status", "--json"});
    ASSERT_TRUE(eventually([] { return stats({1, 8})["clients"] == 1; }));
    plug("1:9");
    EXPECT_EQ(chosen.finish(), 0) << chosen.err();
    EXPECT_EQ(json::parse(chosen.out())["device"], "1:9");
}

TEST(Status, ShowsTheReportAndRepeatsIt) {
    const JovuDeviceAddress device = plug();
    const json report = json::parse(jovu({"status", "--json"}).out);
    EXPECT_EQ(report["printer"]["cpu_id"], "JVS001002");
    EXPECT_EQ(report["state"], "idle");
    EXPECT_NEAR(report["extruder_temperature"], 25.0, 5.0);
    EXPECT_THAT(jovu({"status"}).out, HasSubstr("State         idle\n"));

    Program watch({"status", "--watch", "--interval", "0.1", "--json"});
    ASSERT_TRUE(eventually(
        [&] { return watch.writes("\n") && stats(device)["job"]["requests"]["status"] >= 6; }));
    watch.close_reader();
    EXPECT_EQ(watch.finish(), 141);

    sim("fault " + name(device) + " silent always");
    const int before = status_requests(device);
    Program program({"status"});
    ASSERT_TRUE(eventually([&] { return status_requests(device) == before + 2; }));
    for (const char* const state : {"at the first request", "at the second"})
        send_report(device, {{"status", {{"state", state}}}});
    EXPECT_EQ(program.finish(), 0);
    EXPECT_THAT(program.out(), HasSubstr("State         at the second\n"));
}

TEST(Events, AreShownAsTheyCome) {
    const JovuDeviceAddress device = plug();
    const std::string head = "frame " + name(device) + R"( {"transport":{"attrs":["request",)" +
                             R"("oneway"],"id":7},"data":{"event":{"name":)";
    const std::string shown[] = {"servo 1  state 2  count 4294967295  commanded -5  at 6  pwm -7",
                                 "  \\x1b[31m\\xc3(\\u202e\\x7f\n", "  the end\n"};
    const std::string as_json[] = {R"({"servo_name":1,"servo_state":2,"int_cnt":4294967295,)"
                                   R"("pos_cmd":-5,"pos":6,"pwm":-7,"padout_dist":8}})",
                                   R"("text":"\u001b[31m\ufffd(\u202e\u007f\n"})", R"("the end"})"};
    for (const bool json_wanted : {false, true}) {
        Program program({"events", json_wanted ? "--json" : "--seconds=100"});
        ASSERT_TRUE(listens(program, device));
        sim(head + R"("servo_dc_trace_event","args":{"msg":{"servo_name":1,"servo_state":2,)" +
            R"("int_cnt":4294967295,"pos_cmd":-5,"pos":6,"pwm":-7,"padout_dist":8}}}}})");
        sim(head +
            R"("debug_event","args":{"text":[27,91,51,49,109,-61,40,-30,-128,-82,127,10,0]}}}})");
        sim("event " + name(device) + " the end");
        for (const std::string& text : json_wanted ? as_json : shown)
            EXPECT_TRUE(program.writes(text)) << program.out();
    }
    EXPECT_EQ(jovu({"events", "--seconds", "0.1"}).status, 0);
}

TEST(Gcode, SendsEachLineToOneDeviceAndShowsWhatComesOfIt) {
    const JovuDeviceAddress device = plug();
    const JovuDeviceAddress other = plug();
    sim("fault " + name(device) + " delay 200");
    Program program({"gcode", "-d", name(device), "-"});
    program.type("; start\nG28\r\n\n  G1 X10 Y20 ; move\nM114\n");
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    sim("event " + name(other) + " of another device");
    ASSERT_TRUE(program.writes("E:0.00\n"));
    EXPECT_EQ(program.out(),
              "ok       G28\nok       G1 X10 Y20\nok       M114\n"
              "         | X:10.00 Y:20.00 Z:0.00 E:0.00\n");
    EXPECT_THAT(stats(device)["message"]["gcode"], ElementsAre("G28", "G1 X10 Y20", "M114"));

    sim("replug " + name(device));
    ASSERT_TRUE(eventually([&] { return stats(device)["opens"].get<int>() > 1; }));
    program.type("G1 X10\n");
    program.end_input();
    EXPECT_EQ(program.finish(), 5) << "another device in its place is not sent the rest";
    EXPECT_THAT(program.err(), HasSubstr("device has disconnected: " + name(device)));
}

TEST(Events, EndWhenTheLinkDoes) {
    const JovuDeviceAddress device = plug();
    Program program({"events"});
    ASSERT_TRUE(listens(program, device));
    EXPECT_TRUE(eventually([&] {
        // The opening fails, unless the device was open already.
        sim("fault " + name(plug()) + " claim EBUSY 1 1");
        return program.complains("Fatal error in hotplug thread", std::chrono::seconds(3));
    }));
    EXPECT_EQ(program.finish(), 5);
    EXPECT_THAT(program.err(), HasSubstr("the USB connection has ended"));
}

TEST(Gcode, StopsAtARefusalUnlessItIsToKeepGoing) {
    const JovuDeviceAddress device = plug();
    const TemporaryFile file("moves.gcode", "G28\n\nG999 ; unknown\nG1 X-1\nG90\n");
    const Ended stopped = jovu({"gcode", "-f", file.path()});
    EXPECT_EQ(stopped.status, 6);
    EXPECT_THAT(stopped.err, HasSubstr("jovu: device refused line 3 with result 2: G999\n"));
    EXPECT_EQ(requests(device, "gcode_process_command"), 2);

    const Ended kept = jovu({"gcode", "--keep-going", "--file", file.path(), "--json"});
    EXPECT_EQ(kept.status, 6);
    EXPECT_THAT(kept.err, HasSubstr("lines refused: 2 of 4"));
    const std::vector<json> lines = json_lines(kept.out);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(jovu({"gcode", "[x,y]", "-k"}).status, 6);
    EXPECT_EQ(stats(device)["message"]["gcode"].back(), "[x,y]");
    EXPECT_EQ(lines[2]["line"], 4);
    EXPECT_EQ(lines[2]["result"], 3);
    EXPECT_EQ(lines[3]["accepted"], true);
}

}  // namespace
}  // namespace test
