// SPDX-License-Identifier: Apache-2.0

/// @file
/// Devices: found, listed, their state, events and gcode, and the commands of their firmware.

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <map>

#include "cli_test.h"
#include "posix/files.h"

namespace test {
namespace {

TEST(List, ShowsWhatIsOpenedAndWhatIsNot) {
    plug("1:3");
    plug("1:2");
    plug("1:4 product=0003");
    EXPECT_THAT(
        jovu("list"),
        Exits(0,
              "1:2  serial JVS001002  port 1-2  version 1.0.0\n"
              "1:3  serial JVS001003  port 1-3  version 1.0.0\n"
              "1:4  serial JVS001004  port 1-4  not open: another kind of device, type 2\n"));
    EXPECT_THAT(
        jovu("list --json"),
        Exits(0,
              R"({"devices":[{"device":"1:2","serial":"JVS001002","port":"1-2","version":"1.0.0"},)"
              R"({"device":"1:3","serial":"JVS001003","port":"1-3","version":"1.0.0"}],)"
              R"("not_opened":[{"device":"1:4","serial":"JVS001004","port":"1-4","type":2,)"
              R"("state":"other_kind",)"));
}

TEST(List, NamesWhatHasADeviceOpen) {
    plug("1:2");
    const std::string path = "/dev/bus/usb/001/002";
    const std::string program = "cli_tests .process " + std::to_string(getpid());
    const auto named = ContainsRegex(path + " is in use by .*" + program);
    const jovu_cli::FileDescriptor node(open(path.c_str(), O_RDWR | O_CLOEXEC));
    unsigned interface = 1;
    ASSERT_EQ(ioctl(node.get(), USBDEVFS_CLAIMINTERFACE, &interface), 0);
    EXPECT_THAT(jovu("info").err, testing::AllOf(HasSubstr("(it is attached, but "), named));
    interface = 0;
    ASSERT_EQ(ioctl(node.get(), USBDEVFS_CLAIMINTERFACE, &interface), 0);
    const Ended alone = jovu("list --json");
    EXPECT_EQ(alone.status, 3);
    EXPECT_THAT(alone.err, named);
    EXPECT_EQ(json::parse(alone.out)["not_opened"][0]["state"], "in_use");

    plug("1:3");
    const Ended both = jovu("list");
    EXPECT_THAT(both, Exits(0, "1:2  serial JVS001002  port 1-2  not open: /dev/bus/usb/"));
    EXPECT_THAT(both.out, named);
    EXPECT_THAT(jovu("--wait-device 1000 info"), Exits(0, "")) << "waits for what cannot come";
}

TEST(Programs, SayNothingOfTheDevicesThatTheyLeaveToOthers) {
    plug("1:2");
    plug("1:3");
    EXPECT_EQ(jovu("list -s JVS001002").out, "1:2  serial JVS001002  port 1-2  version 1.0.0\n");
    EXPECT_THAT(jovu("list --json --port 1-3"), Exits(0, R"("not_opened":[]})"));
    EXPECT_THAT(jovu("shell -s JVS001002", ".info -d 1:3\n"),
                Exits(3, "not opened: 1:3 serial JVS001003: the shell is for another device"));
}

TEST(List, OfTheAttachedOpensNothing) {
    EXPECT_THAT(jovu("list --attached --json"), Exits(3, "no device: nothing is attached"));
    plug("1:2");
    plug("1:3 product=00df");
    plug("1:4 product=0003");
    // Held by this program, so that it could not be opened.
    const jovu_cli::FileDescriptor node(open("/dev/bus/usb/001/002", O_RDWR | O_CLOEXEC));
    unsigned interface = 0;
    ASSERT_EQ(ioctl(node.get(), USBDEVFS_CLAIMINTERFACE, &interface), 0);
    EXPECT_THAT(jovu("list --attached"), Exits(0,
                                               "1:2  serial JVS001002  port 1-2  controller\n"
                                               "1:3  serial JVS001003  port 1-3  dfu\n"
                                               "1:4  serial JVS001004  port 1-4  other\n"));
    EXPECT_THAT(jovu("list --attached --json -s JVS001004"),
                Exits(0, R"({"attached":[{"device":"1:4","serial":"JVS001004","port":"1-4",)"
                         R"("kind":"other"}]})"));
    EXPECT_THAT(jovu("list --attached --port 9-9"), Exits(3, "no device: the chosen one is not"));
}

TEST(Programs, ShareTheDevicesOfABus) {
    const JovuDeviceAddress one{1, 2};
    const JovuDeviceAddress other{1, 3};
    plug("1:2");
    plug("1:3");
    Program first("events -d 1:2");
    ASSERT_TRUE(listens(first, one));
    Program second("events --port 1-3");
    ASSERT_TRUE(listens(second, other));
    EXPECT_THAT(jovu("info -s JVS001002"), Exits(3, "cannot open 1:2 serial JVS001002: "));
    EXPECT_THAT(jovu("info -s JVS001002").err, HasSubstr("jovu (process "));
    setenv("JOVU_DEVICE", "NONE", 1);
    EXPECT_THAT(jovu("info"), Exits(3, "no such device: serial number NONE (attached: 1:"));
    unsetenv("JOVU_DEVICE");
    EXPECT_EQ(requests(one, "bio_get_version") + requests(other, "bio_get_version"), 0);
    for (const char* const device : {"1:2", "1:3"})
        sim(std::string("replug ") + device);
    EXPECT_TRUE(listens(first, one)) << "the second program has taken its hot-plug events";
    EXPECT_TRUE(listens(second, other));
}

TEST(Status, StartsTheConnectionAgainOnce) {
    plug();
    {
        const FailingTransfers failing("1 1");
        const Ended once = jovu("status");
        EXPECT_EQ(once.status, 0);
        EXPECT_THAT(once.err, HasSubstr(": starting it again\n"));
    }
    const FailingTransfers failing("1 2");
    EXPECT_THAT(jovu("status"), Exits(3, "ended again"));
}

TEST(List, GoesOnWhenOneDeviceDoesNotAnswer) {
    const JovuDeviceAddress silent = plug();
    plug();
    sim("fault " + name(silent) + " silent always");
    Program shown("list --timeout 3");
    ASSERT_TRUE(shown.writes("1:3  serial JVS001003"));
    EXPECT_THAT(shown.out(), Not(HasSubstr("no response"))) << "holds the list up";
    EXPECT_THAT(shown.finish(),
                Exits(5, "to 1:2 serial JVS001002 failed: no response within 3000 ms (--timeout"));
    Program program("list --json");
    ASSERT_TRUE(eventually([&] { return requests(silent, "bio_get_version") == 2; }));
    sim("unplug " + name(silent));
    const Ended ended = program.finish();
    EXPECT_EQ(ended.status, 5);
    const json devices = json::parse(ended.out)["devices"];
    EXPECT_EQ(
        devices[0]["error"],
        "version request to 1:2 serial JVS001002 failed: Transport Error - No response received");
    EXPECT_EQ(devices[1]["serial"], "JVS001003");
}

TEST(WaitDevice, WaitsForOneToAppear) {
    Program any("--wait-device 60 info");
    plug("1:8");
    EXPECT_THAT(any.finish(), Exits(0, "JVS001008"));

    const json opens = stats({1, 8})["opens"];
    for (const char* const options : {"-d 1:9", "-s JVS001009", "--port 1-9"}) {
        Program chosen(std::string("--wait-device 60 status --json ") + options);
        plug("1:9");
        EXPECT_THAT(chosen.finish(), Exits(0, "\"device\":\"1:9\""));
        sim("unplug 1:9");
    }
    EXPECT_EQ(stats({1, 8})["opens"], opens) << "another device is not even probed";
}

TEST(Status, ShowsTheReportAndRepeatsIt) {
    const JovuDeviceAddress device = plug();
    const json report = json::parse(jovu("status --json").out);
    EXPECT_EQ(report["printer"]["cpu_id"], "JVS001002");
    EXPECT_EQ(report["state"], "idle");
    EXPECT_NEAR(report["extruder_temperature"], 25.0, 5.0);
    EXPECT_THAT(jovu("status"), Exits(0, "State         idle\n"));

    const JovuDeviceAddress other = plug();
    sim("fault " + name(device) + " silent always");
    const int before = status_requests(device);
    Program program("status -d " + name(device));
    ASSERT_TRUE(eventually([&] { return status_requests(device) == before + 2; }));
    send_report(other, {{"status", {{"state", "of another device"}}}});
    for (const char* const state : {"at the first request", "at the second"})
        send_report(device, {{"status", {{"state", state}}}});
    EXPECT_THAT(program.finish(), Exits(0, "State         at the second\n"));
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
        Program program(json_wanted ? "events --json" : "events --seconds=100");
        ASSERT_TRUE(listens(program, device));
        sim(head + R"("servo_dc_trace_event","args":{"msg":{"servo_name":1,"servo_state":2,)" +
            R"("int_cnt":4294967295,"pos_cmd":-5,"pos":6,"pwm":-7,"padout_dist":8}}}}})");
        sim(head +
            R"("debug_event","args":{"text":[27,91,51,49,109,-61,40,-30,-128,-82,127,10,0]}}}})");
        sim("event " + name(device) + " the end");
        for (const std::string& text : json_wanted ? as_json : shown)
            EXPECT_TRUE(program.writes(text)) << program.out();
    }
    EXPECT_THAT(jovu("events --seconds 0.1"), Exits(0, ""));
}

TEST(Gcode, SendsEachLineToOneDeviceAndShowsWhatComesOfIt) {
    const JovuDeviceAddress device = plug();
    const JovuDeviceAddress other = plug();
    sim("fault " + name(device) + " delay 200");
    Program program("gcode -d " + name(device) + " -");
    program.type("; start\nG28\r\n\n  G1 X10 Y20 ; move\nM114\n");
    ASSERT_TRUE(eventually([&] { return requests(device, "gcode_process_command") == 1; }));
    sim("event " + name(other) + " of another device");
    ASSERT_TRUE(program.writes("E:0.00\n"));
    EXPECT_EQ(program.out(),
              "ok       G28\nok       G1 X10 Y20\nok       M114\n"
              "         | X:10.00 Y:20.00 Z:0.00 E:0.00\n");
    EXPECT_EQ(stats(device)["message"]["gcode"], json({"G28", "G1 X10 Y20", "M114"}));

    sim("replug " + name(device));
    ASSERT_TRUE(eventually([&] { return stats(device)["opens"].get<int>() > 0; }));
    program.type("G1 X10\n");
    program.end_input();
    EXPECT_THAT(program.finish(), Exits(5, "device has disconnected: " + name(device)))
        << "another device in its place is not sent the rest";
}

TEST(Events, EndWhenTheLinkDoes) {
    const JovuDeviceAddress device = plug();
    const FailingTransfers failing("4 4");  // after the three of the first device
    Program program("events");
    ASSERT_TRUE(listens(program, device));
    plug();
    EXPECT_TRUE(program.writes("Fatal error in hotplug thread"));
    EXPECT_THAT(program.finish(), Exits(5, "the USB connection has ended"));
}

TEST(Gcode, StopsAtARefusalUnlessItIsToKeepGoing) {
    const JovuDeviceAddress device = plug();
    const TemporaryFile file("moves.gcode", "G28\n\nG999 ; unknown\nG1 X-1\nG90\n");
    EXPECT_THAT(jovu("gcode -f " + file.path()),
                Exits(6, "jovu: device refused line 3 with result 2: G999\n"));
    EXPECT_EQ(requests(device, "gcode_process_command"), 2);

    const Ended kept = jovu("gcode --keep-going --file " + file.path() + " --json");
    EXPECT_THAT(kept, Exits(6, "lines refused: 2 of 4"));
    EXPECT_THAT(kept.out, HasSubstr(R"("line":4,"command":"G1 X-1","result":3,"accepted":false,)"));
    EXPECT_THAT(kept.out, HasSubstr(R"("line":5,"command":"G90","result":0,"accepted":true,)"));
    EXPECT_THAT(jovu("gcode [x,y] -k"), Exits(6, ""));
    EXPECT_EQ(stats(device)["message"]["gcode"].back(), "[x,y]");
}

/// @return a value of an argument's kind.
std::string example(const json& argument) {
    const std::string kind = argument["kind"];
    if (kind == "structure") return "{}";
    if (kind == "text") return argument.contains("size") ? "net" : "G28";
    // Off: the samples of a trace would delay all later responses.
    if (kind == "boolean") return "0";
    return kind == "buffer" ? "1,2" : "1";
}

TEST(Call, ReachesTheDeviceWithEveryCommand) {
    const std::string disconnecting = "Enter_dfu_mode";
    const json commands = json::parse(jovu("commands --json").out);
    ASSERT_FALSE(commands.empty());
    const JovuDeviceAddress device = plug();
    for (const json& command : commands) {
        const std::string name = command["name"];
        if (name == disconnecting) continue;
        std::string line = "call --json " + name;
        for (const json& argument : command["arguments"])
            line += " " + argument["key"].get<std::string>() + "=" + example(argument);
        const Ended ended = jovu(line);
        ASSERT_THAT(ended, Exits(0, "")) << name;
        const json response = json::parse(ended.out);
        EXPECT_EQ(response["index"], command["index"]);
        const std::string kind = command["result"]["kind"], type = response["result"].type_name();
        const std::map<std::string, std::string> types{
            {"nothing", "null"},  {"boolean", "boolean"},  {"integer", "number"},
            {"number", "number"}, {"structure", "object"}, {"text", "string"}};
        EXPECT_EQ(type, types.at(kind)) << name;
        EXPECT_EQ(response["result"].is_object() ? response["result"].size() : 0,
                  command["result"].value("members", json::array()).size());
        EXPECT_EQ(requests(device, name), 1) << name;
    }
    EXPECT_EQ(protocol_violations(device), 0) << stats(device)["protocol_violations"];
    EXPECT_THAT(jovu("call " + disconnecting), Exits(0, ""));
    EXPECT_TRUE(eventually([] { return sim("list").find("product=00df") != std::string::npos; }));
}

TEST(Call, ReadsBackWhatItHasWritten) {
    const JovuDeviceAddress device = plug();
    const auto result = [](const std::string& words) {
        return json::parse(jovu("call --json " + words).out)["result"];
    };
    json config = result("servo_dc_config_get servo_name=0");
    EXPECT_THAT(jovu("call servo_dc_config_set servo_name=0 config=" + config.dump() +
                     " config.gains.kp=0.1 config.pwm_cap=900"),
                Exits(0, "done\n"));
    config["gains"]["kp"] = 0.1;
    config["pwm_cap"] = 900;
    EXPECT_EQ(result("servo_dc_config_get servo_name=0"), config);

    EXPECT_THAT(jovu("call --json wifi_client_get_configuration interface_t=0").out,
                ContainsRegex("\"mac_address\":\"([0-9a-f][0-9a-f]:)+[0-9a-f][0-9a-f]\""));
    const TemporaryFile ssid("ssid", "caf\xC3\xA9\n");
    EXPECT_THAT(jovu("call wifi_set_auto_connect_ssid_configuration_item interface_t=0 "
                     "auto_connect_ssid=@" +
                     ssid.path()),
                Exits(0, ""));
    const std::string set_key =
        "call wifi_set_auto_connect_key_configuration_item interface_t=0 auto_connect_key=@-";
    EXPECT_THAT(jovu(set_key, "a\nb\n\n"), Exits(0, "")) << "without the last line feed";
    EXPECT_THAT(jovu(set_key, std::string(300000, '\n')), Exits(7, "")) << "without end";
    const Ended shown = jovu("call wifi_client_get_configuration interface_t=0");
    EXPECT_THAT(shown, Exits(0, "\nifc_config.auto_connect_ssid     caf\xC3\xA9\n"));
    EXPECT_THAT(shown, Exits(0, "\nifc_config.auto_connect_key      a\\nb\\n\n"));
    EXPECT_THAT(jovu("call heater_var_get var_num=0 var_val=0"),
                Exits(0, "status 0; the value itself is not returned\n"));
    EXPECT_EQ(protocol_violations(device), 0);
}

}  // namespace
}  // namespace test
