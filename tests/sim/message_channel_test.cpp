// The message channel: frames, requests and their rules, responses, events, faults.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

const std::string kVersionRequest = Host::command(1, 0, "bio_get_version");

TEST(MessageChannel, RespondsUnderTheIdAndEchoesArguments) {
    Host host;
    const auto responses = host.exchange(Host::gcode(4294967295U, "G28"));
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_EQ(
        responses[0].dump(),
        R"({"transport":{"attrs":["response"],"id":4294967295},"data":{"command":{"idx":5,)"
        R"("name":"gcode_process_command","args":{"command":[71,50,56,0]},"__return__":0}}})");
    EXPECT_EQ(host.violations(), 0U);
}

TEST(MessageChannel, FindsTheFramesInAnyStream) {
    const std::string good = Host::framed(kVersionRequest);
    std::string bad_check = good;
    bad_check[3] = 'x';
    std::string bad_end = good;
    bad_end.back() = '$';  // at once the start of the next frame
    const std::string zero_length("$\0\0\xFF\xFF", 5);
    const struct {
        std::string bytes;
        std::size_t frames;
        bool violates;
    } cases[] = {
        {good + Host::framed(Host::command(2, 1, "bio_get_serial")), 2, false},
        {"abc" + good, 1, true},
        {bad_check + good, 1, true},
        {bad_end + good.substr(1), 1, true},
        {zero_length + good, 1, true},
    };
    for (const auto& c : cases) {
        for (const std::size_t piece : {1U, 2U, 5U, 63U, 64U, 1000U}) {
            Host host;
            for (std::size_t at = 0; at < c.bytes.size(); at += piece)
                host.send(kMessageOut, c.bytes.substr(at, piece));
            EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), c.frames)
                << &c - cases << " in pieces of " << piece;
            EXPECT_EQ(host.violations() > 0, c.violates) << &c - cases;
        }
    }
}

TEST(MessageChannel, DropsAnIncompleteFrame) {
    for (const Millis silence : {5000, 5001}) {
        Host host;
        host.send(kMessageOut, Host::framed(kVersionRequest).substr(0, 20));
        host.now += silence;
        EXPECT_EQ(host.exchange(kVersionRequest).size(), silence > 5000 ? 1U : 0U);
        const auto violations = host.controller.take_violations();
        EXPECT_EQ(violations.at(0) == "message channel: an incomplete frame was dropped",
                  silence > 5000);
        EXPECT_EQ(violations.size() == 1, silence > 5000);
    }
}

/// REQUEST => OUTCOME. A request is a payload, or the name of a command with its arguments. $T
/// stands for a sound "transport", $V for a sound "command", [V*N] for an array of N times V, [^N]
/// for N nested arrays, \s, \t, \n and \r for blanks. The outcome is a part of the violation, or
/// "carried out" for a request that violates a rule once and has a result all the same.
constexpr const char* kRequests = R"(
{"transport": => not JSON
[^30000] => too deeply
[^65] => too deeply
[^64] => not an object
[[],[{}*99]] => not an object
{"data":{"command":$V}} => no command
{"transport":$T,"data":{}} => no command
{"transport":{"attrs":["request","twoway"]},"data":{"command":$V}} => id of a request
{"transport":{"attrs":["request","twoway"],"id":-1},"data":{"command":$V}} => id of a request
{"transport":{"attrs":["request","twoway"],"id":4294967296},"data":{"command":$V}} => id of a request
{"transport":$T,"data":{"command":{"idx":1,"name":"bio_get_version"}}} => idx is 1
{"transport":$T,"data":{"command":{"idx":0.0,"name":"bio_get_version"}}} => idx is 0.0
{"transport":$T,"data":{"command":{"idx":0,"name":"bio_get"}}} => unknown command
{"transport":$T,"data":{"command":{"idx":0,"name":7}}} => unknown command
bio_get_version {} => takes no arguments
gcode_process_command => missing
gcode_process_command {} => "args" is {}
gcode_process_command {"cmd":[0]} => instead of "command"
gcode_process_command {"command":"G28"} => not an array
gcode_process_command {"command":[]} => empty
gcode_process_command {"command":[71]} => not 0
gcode_process_command {"command":[71,0,71,0]} => before the end
gcode_process_command {"command":[233,0]} => outside -128..127
gcode_process_command {"command":[71.0,0]} => not an integer
gpio_output_set {"pin":3,"value":true} => "value" is true, not an integer
gpio_output_set {"pin":3,"value":2} => "value" is 2, outside 0..1
gpio_output_set {"pin":-1,"value":1} => outside 0..4294967295
gpio_output_set {"value":1,"pin":3} => "pin" instead of "value"
servo_dc_name_str_get {"servo_name":2147483648} => outside -2147483648..
servo_dc_backlash_set {"servo_name":0,"backlash_value":40000,"flush":0} => outside -32768..32767
wifi_client_scan_get {"interface_t":0,"index":256} => outside 0..255
heater_param_set {"param_num":0,"param_val":0.1} => which a float cannot represent
heater_param_set {"param_num":0,"param_val":16777217} => which a float cannot represent
heater_param_set {"param_num":0,"param_val":1e39} => which a float cannot represent
heater_param_get {"param_num":0,"param_val":1.5} => not an array
heater_param_get {"param_num":0,"param_val":[1.5,2.5]} => has 2 elements, not 1
sd_mmc_write {"offset":0,"buf":[-1],"length":1} => "buf"[0] is -1, outside 0..255
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":[0*31]}} => "connect_t".ssid has 31 elements
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":[200*32]}} => .ssid[0] is 200, outside -128..127
wifi_client_connect {"interface_t":0,"connect_t":{"key":[0*64]}} => has "key" instead of "ssid"
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":[0*32]}} => "connect_t" lacks "key"
servo_dc_config_set {"servo_name":0,"config":{"interrupt_frequency":1,"gains":[1]}} => .gains is [1], not an object
servo_dc_units_client_to_native {"servo_name":0,"pos_client":1e20} => which a float cannot represent
servo_dc_units_client_to_native {"servo_name":0,"pos_client":3.4028234663852885981e+38} => no violation
servo_dc_units_client_to_native {"servo_name":0,"pos_client":-0.0} => no violation
{"transport":$T,"data":{"command":$V}}\s => carried out
\t{"transport":$T,"data":{"command":$V}} => carried out
\n{"transport":$T,"data":{"command":$V}} => carried out
{"transport":$T,"data":{"command":$V}}\r => carried out
{"data":{"command":$V},"transport":$T} => carried out
{"transport":{"id":9,"attrs":["request","twoway"]},"data":{"command":$V}} => carried out
{"transport":$T,"data":{"command":{"name":"bio_get_version","idx":0}}} => carried out
{"transport":{"attrs":["twoway","request"],"id":9},"data":{"command":$V}} => carried out
{"transport":{"attrs":[],"id":9},"data":{"command":$V}} => carried out
{"transport":$T,"data":{"command":$V,"event":{}}} => carried out
)";

std::string payload_of(std::string request) {
    if (request.find_first_of("{[\\") != 0) {
        const std::size_t end = std::min(request.find(' '), request.size());
        const Command* const row = find_command(request.substr(0, end));
        request = Host::command(9, row->idx, row->name,
                                request.substr(std::min(end + 1, request.size())));
    }
    std::smatch found;
    while (
        std::regex_search(request, found, std::regex(R"(\[(-?\d+|\{\})\*(\d+)\]|\[\^(\d+)\])"))) {
        std::string array;
        for (int i = found[2].matched ? std::stoi(found[2]) : 0; i > 0; --i)
            array += found[1].str() + (i > 1 ? "," : "");
        const auto depth = static_cast<std::size_t>(found[3].matched ? std::stoi(found[3]) : 1);
        request = found.prefix().str() + std::string(depth, '[') + array + std::string(depth, ']') +
                  found.suffix().str();
    }
    const std::pair<const char*, const char*> tokens[] = {
        {"$T", R"({"attrs":["request","twoway"],"id":9})"},
        {"$V", R"({"idx":0,"name":"bio_get_version"})"},
        {"\\s", " "},
        {"\\t", "\t"},
        {"\\n", "\n"},
        {"\\r", "\r"},
    };
    for (const auto& [token, value] : tokens) {
        const std::size_t at = request.find(token);
        if (at != std::string::npos) request.replace(at, 2, value);
    }
    return request;
}

TEST(MessageChannel, ReportsEveryViolationOfTheRules) {
    std::istringstream lines(kRequests);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t arrow = line.find(" => ");
        if (arrow == std::string::npos) continue;
        const std::string outcome = line.substr(arrow + 4);
        const std::string payload = payload_of(line.substr(0, arrow));
        const bool has_id = payload.find("\"id\":9}") != std::string::npos ||
                            payload.find("\"id\":9,") != std::string::npos;
        const bool has_command = outcome != "no command";
        const bool runs = outcome == "carried out" || outcome == "no violation";
        Host host;
        const auto responses = host.exchange(payload);
        ASSERT_EQ(responses.size(), has_id && has_command ? 1U : 0U) << line;
        for (const Json& response : responses) {
            EXPECT_EQ(response["transport"]["id"], 9) << line;
            EXPECT_EQ(response["data"]["command"].contains("__return__"), runs) << line;
        }
        EXPECT_EQ(host.stats()["message"]["commands"].size(), runs ? 1U : 0U) << line;
        const auto violations = host.controller.take_violations();
        if (runs) {
            EXPECT_EQ(violations.size(), outcome == "carried out" ? 1U : 0U) << line;
        } else {
            ASSERT_FALSE(violations.empty()) << line;
            EXPECT_NE(violations.back().find(outcome), std::string::npos) << violations.back();
        }
    }
    Host host;
    const char* const oneway =
        R"({"transport":{"attrs":["request","oneway"],"id":9},"data":{"command":$V}})";
    EXPECT_TRUE(host.exchange(payload_of(oneway)).empty());
    EXPECT_EQ(host.stats()["message"]["commands"]["bio_get_version"], 1);
    for (const char* target : {"0.1", "1", "1.0", "-0.0", "1e-07", "9.9999999999999995475e-08"})
        EXPECT_FALSE(check_value(Json::parse(target), kDouble)) << target;
    EXPECT_FALSE(check_string({-128, 127, 0}));
    EXPECT_TRUE(check_string({-129, 0}) && check_string({128, 0}));
}

TEST(MessageChannel, AnExcerptIsShortAndPrintable) {
    const std::string longest(120, 'x');
    EXPECT_EQ(excerpt(longest), longest);
    EXPECT_EQ(excerpt(longest + "x"), longest + "...");
    EXPECT_EQ(excerpt("\x1F ~\x7F\xE9"), "\\x1f ~\\x7f\\xe9");
}

TEST(MessageChannel, SendsEventsWithIdsOfTheirOwn) {
    Host host;
    host.controller.send_debug_event("h\xE9", host.now);
    host.controller.send_debug_event("", host.now);
    const auto events = Host::messages(host.read(kMessageIn));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]["transport"]["attrs"].dump(), R"(["request","oneway"])");
    EXPECT_EQ(events[0]["data"].dump(),
              R"({"event":{"name":"debug_event","args":{"text":[104,-23,0]}}})");
    EXPECT_EQ(events[1]["data"]["event"]["args"]["text"].dump(), "[0]");
    EXPECT_NE(events[0]["transport"]["id"], events[1]["transport"]["id"]);
}

TEST(MessageChannel, SurvivesTheLongestRequest) {
    // Its echo and its event are longer than a frame can be.
    const std::string overhead = Host::gcode(1, "M118 ");
    const std::size_t bytes = (kMaxFramePayload - overhead.size()) / std::strlen("-123,");
    const std::string line = "M118 " + std::string(bytes, '\x85');
    Host host;
    const std::string request = Host::gcode(1, line);
    ASSERT_LE(request.size(), kMaxFramePayload);
    host.send(kMessageOut, Host::framed(request));
    const auto messages = Host::messages(host.read(kMessageIn));
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[1]["data"]["command"]["__return__"], 0);
}

TEST(MessageChannel, AHostThatNeverReadsDoesNotMakeItGrow) {
    Host host;
    const std::string text(kMaxEventString, 'x');
    for (int i = 0; i < 100; ++i)
        host.controller.send_debug_event(text, host.now);
    EXPECT_GT(host.stats()["message"]["dropped"], 0);
    EXPECT_LT(host.read(kMessageIn).size(), 2U << 20U);
}

TEST(MessageChannel, FaultsDamageAResponseInTheirOwnWayAsOftenAsAsked) {
    const std::string text = R"("id":5},"data":{"command":{"idx":0,"name":"bio_get_version",)"
                             R"("__return__":[49,46,48,46,48,0]}}})";
    const std::string envelope = R"({"transport":{"attrs":["response"],)";
    const std::string good = Host::framed(envelope + text);
    std::string check = good;
    check[3] = static_cast<char>(~check[3]);
    std::string end = good;
    end.back() = '!';
    const struct {
        const char* name;
        std::string sent;
        bool strikes_reports;
    } cases[] = {
        {"check", check, false},
        {"terminator", end, false},
        {"json", Host::framed(envelope + text.substr(0, text.size() - 1)), true},
        {"attrs", Host::framed(R"({"transport":{)" + text), false},
        {"id", Host::framed(envelope + R"("id":536870917)" + text.substr(6)), false},
        {"truncate", good.substr(0, good.size() / 2), true},
    };
    const std::string status = R"({"metadata":{"version":1,"type":"status"}})";
    for (const auto& c : cases) {
        Host host;
        const auto kind = corruption_from_name(c.name);
        ASSERT_TRUE(kind) << c.name;
        const auto set = [&](std::uint32_t times) {
            host.controller.response_faults()
                .corrupt.at(static_cast<std::size_t>(*kind))
                .set(times);
        };
        const auto response = [&host] {
            host.send(kMessageOut, Host::framed(Host::command(5, 0, "bio_get_version")));
            return host.read(kMessageIn);
        };
        set(2);
        EXPECT_EQ(response(), c.sent) << c.name;
        EXPECT_EQ(response(), c.sent) << c.name;
        EXPECT_EQ(response(), good) << c.name;
        set(kAlways);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(response(), c.sent) << c.name;
        host.send(kJobOut, status);
        EXPECT_NE(Json::accept(host.read(kJobIn)), c.strikes_reports) << c.name;
    }
    EXPECT_FALSE(corruption_from_name("checks"));
}

TEST(MessageChannel, FaultsDropARequestAndDelayAResponse) {
    Host host;
    host.controller.response_faults().drop.set(1);
    EXPECT_TRUE(host.exchange(kVersionRequest).empty());
    EXPECT_TRUE(host.stats()["message"]["commands"].empty());
    host.controller.response_faults().delay = 500;
    EXPECT_TRUE(host.exchange(kVersionRequest).empty());
    host.now += 499;
    EXPECT_EQ(host.read(kMessageIn), "");
    host.now += 1;
    EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), 1U);
    host.controller.response_faults() = {};
    host.controller.response_faults().deep = 3;
    EXPECT_EQ(host.ask("bio_get_version").dump(), "[[[]]]");
    EXPECT_EQ(host.ask("bio_get_version").dump(), Host::bytes_of("1.0.0"));
}

TEST(MessageChannel, FaultsFloodBothChannels) {
    Host host;
    host.controller.flood(Channel::message, 3);
    host.controller.flood(Channel::job, 2);
    const auto events = Host::messages(host.read(kMessageIn));
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[2]["data"]["event"]["args"]["text"].dump(), Host::bytes_of("flood 2"));
    int reports = 0;
    for (const std::string& packet : host.packets(kJobIn))
        reports += int{packet.size() < kMaxPacket};
    EXPECT_EQ(reports, 2);
    for (const std::size_t size : {1U, 64U, 65U, 128U}) {
        host.controller.send_garbage(Channel::job, size);
        EXPECT_EQ(host.read(kJobIn).size(), size);
    }
    host.controller.send_raw(Channel::message, "abc", host.now);
    EXPECT_EQ(host.read(kMessageIn) + host.read(kJobIn), "abc");
}

TEST(MessageChannel, ARequestIsActivity) {
    Host host;
    const auto idle = [&host](Millis later) {
        host.now += later;
        host.send(kJobOut, R"({"metadata":{"version":1,"type":"status"}})");
        return Json::parse(host.read(kJobIn))["time"]["idle"].get<int>();
    };
    EXPECT_EQ(idle(0), 0);
    EXPECT_EQ(idle(3000), 3);
    EXPECT_EQ(idle(2000), 2);
    host.now += 1000;
    host.ask("bio_get_version");
    EXPECT_EQ(idle(1000), 1);
}

}  // namespace
}  // namespace jovusim::test
