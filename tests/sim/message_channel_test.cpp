// SPDX-License-Identifier: Apache-2.0

// The message channel: frames, requests and their rules, responses, events, faults.
#include <gtest/gtest.h>

#include <cstring>
#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

const std::string kVersionRequest = Host::command(1, 0, "bio_get_version");

TEST(MessageChannel, FindsTheFramesInAnyStream) {
    const std::string good = framed(kVersionRequest);
    const std::string both = good + framed(Host::command(2, 1, "bio_get_serial"));
    const std::string streams[] = {
        both,
        "abc" + good,                                            // stray bytes
        std::string(good).replace(3, 1, "x") + good,             // a wrong check
        good.substr(0, good.size() - 1) + "$" + good.substr(1),  // the next one in place of the end
        std::string("$\0\0\xFF\xFF", 5) + good,                  // no length
    };
    for (const std::string& stream : streams) {
        for (const std::size_t piece : {1U, 2U, 5U, 63U, 64U, 1000U}) {
            Host host;
            for (std::size_t at = 0; at < stream.size(); at += piece)
                host.send(kMessageOut, stream.substr(at, piece));
            const bool sound = stream == both;
            EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), sound ? 2U : 1U) << stream;
            EXPECT_EQ(host.violations() == 0, sound) << stream << " in pieces of " << piece;
        }
    }
}

TEST(MessageChannel, DropsAnIncompleteFrame) {
    Host host;
    host.send(kMessageOut, framed(kVersionRequest).substr(0, 20));
    host.now += 5000;
    EXPECT_TRUE(host.exchange("").empty()) << "it belongs to the frame";
    host.now += 5001;
    host.controller.take_violations();
    EXPECT_EQ(host.exchange(kVersionRequest).size(), 1U);
    EXPECT_EQ(host.controller.take_violations(),
              std::vector<std::string>{"message channel: an incomplete frame was dropped"});
}

/// REQUEST => OUTCOME. A request is a payload, or the name of a command with its arguments. $T
/// stands for a sound "transport", $V for a sound "command", the other tokens for the arrays in
/// payload_of(). The outcome is a part of the violation, or "carried out" for a request that
/// violates a rule once and has a result all the same.
constexpr const char* kRequests = R"(
{"transport": => not JSON
$[65 => too deeply
$[64 => not an object
[[],$O] => not an object
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
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":$031}} => "connect_t".ssid has 31 elements
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":$200}} => .ssid[0] is 200, outside -128..127
wifi_client_connect {"interface_t":0,"connect_t":{"key":$064}} => has "key" instead of "ssid"
wifi_client_connect {"interface_t":0,"connect_t":{"ssid":$032}} => "connect_t" lacks "key"
servo_dc_config_set {"servo_name":0,"config":{"interrupt_frequency":1,"gains":[1]}} => .gains is [1], not an object
servo_dc_units_client_to_native {"servo_name":0,"pos_client":1e20} => which a float cannot represent
servo_dc_units_client_to_native {"servo_name":0,"pos_client":3.4028234663852885981e+38} => no violation
servo_dc_units_client_to_native {"servo_name":0,"pos_client":-0.0} => no violation
{"data":{"command":$V},"transport":$T} => carried out
{"transport":{"id":9,"attrs":["request","twoway"]},"data":{"command":$V}} => carried out
{"transport":$T,"data":{"command":{"name":"bio_get_version","idx":0}}} => carried out
{"transport":{"attrs":["twoway","request"],"id":9},"data":{"command":$V}} => carried out
{"transport":{"attrs":[],"id":9},"data":{"command":$V}} => carried out
{"transport":$T,"data":{"command":$V,"event":{}}} => carried out
)";

std::string payload_of(std::string request) {
    if (request.find_first_of("{[$") != 0) {
        const std::size_t end = std::min(request.find(' '), request.size());
        const Command* const row = find_command(request.substr(0, end));
        request = Host::command(9, row->idx, row->name,
                                request.substr(std::min(end + 1, request.size())));
    }
    const auto zeros = [](std::size_t count) { return Json(std::vector<int>(count)).dump(); };
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    const std::pair<std::string, std::string> tokens[] = {
        {"$T", R"({"attrs":["request","twoway"],"id":9})"},
        {"$V", R"({"idx":0,"name":"bio_get_version"})"},
        {"$031", zeros(31)},
        {"$032", zeros(32)},
        {"$064", zeros(64)},
        {"$200", Json(std::vector<int>(32, 200)).dump()},
        {"$[64", nested(64)},
        {"$[65", nested(65)},
        {"$O", Json(std::vector<Json>(99, {Json::object(), Json::array()})).dump()},
    };
    for (const auto& [token, value] : tokens) {
        const std::size_t at = request.find(token);
        if (at != std::string::npos) request.replace(at, token.size(), value);
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
        const bool runs = outcome == "carried out" || outcome == "no violation";
        Host host;
        const auto responses = host.exchange(payload);
        const auto violations = host.controller.take_violations();
        const bool has_id = payload.find("\"id\":9") != std::string::npos;
        ASSERT_EQ(responses.size(), has_id && outcome != "no command" ? 1U : 0U) << line;
        for (const Json& response : responses) {
            EXPECT_EQ(response["transport"]["id"], 9) << line;
            EXPECT_EQ(response["data"]["command"].contains("__return__"), runs) << line;
        }
        EXPECT_EQ(host.stats()["message"]["commands"].size(), runs ? 1U : 0U) << line;
        ASSERT_EQ(violations.empty(), outcome == "no violation") << line;
        EXPECT_TRUE(runs ? violations.size() <= 1
                         : violations.back().find(outcome) != std::string::npos)
            << line;
    }
    for (const char* const blank : {" ", "\t", "\n", "\r"}) {
        Host host;
        EXPECT_EQ(host.exchange(kVersionRequest + blank).size(), 1U);
        EXPECT_EQ(host.violations(), 1U) << "blanks";
    }
    Host host;
    const char* const oneway =
        R"({"transport":{"attrs":["request","oneway"],"id":9},"data":{"command":$V}})";
    EXPECT_TRUE(host.exchange(payload_of(oneway)).empty());
    EXPECT_EQ(host.stats()["message"]["commands"]["bio_get_version"], 1);
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
    host.controller.flood(Channel::message, 2);
    std::string events;
    unsigned id = 1U << 30U;
    for (const char* const text : {"h\xE9", "", "flood 0", "flood 1"})
        events +=
            framed(R"({"transport":{"attrs":["request","oneway"],"id":)" + std::to_string(id++) +
                   R"(},"data":{"event":{"name":"debug_event","args":{"text":)" +
                   Host::bytes_of(text) + "}}}}");
    EXPECT_EQ(host.read(kMessageIn), events);
}

TEST(MessageChannel, BoundsWhatItSends) {
    // The echo and the event of this request are longer than a frame can be.
    const std::string overhead = Host::gcode(1, "M118 ");
    const std::size_t bytes = (kMaxFramePayload - overhead.size()) / std::strlen("-123,");
    Host host;
    const auto messages = host.exchange(Host::gcode(1, "M118 " + std::string(bytes, '\x85')));
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[1]["data"]["command"]["__return__"], 0);
    for (int i = 0; i < 100; ++i)  // The host does not read.
        host.controller.send_debug_event(std::string(kMaxEventString, 'x'), host.now);
    EXPECT_GT(host.stats()["message"]["dropped"], 0);
    EXPECT_LT(host.read(kMessageIn).size(), 2U << 20U);
}

TEST(MessageChannel, RespondsUnderTheIdUnlessAFaultDamagesTheResponse) {
    const std::string request = framed(Host::gcode(3000000000U, "G28"));
    const std::string text =
        R"("id":3000000000},"data":{"command":{"idx":5,"name":"gcode_process_command",)"
        R"("args":{"command":[71,50,56,0]},"__return__":0}}})";
    const std::string envelope = R"({"transport":{"attrs":["response"],)";
    const std::string good = framed(envelope + text);
    // What is sent instead of the good response; whether a status report is damaged as well.
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"check", std::string(good).replace(3, 1, 1, static_cast<char>(~good[3])), false},
        {"terminator", good.substr(0, good.size() - 1) + "!", false},
        {"json", framed(envelope + text.substr(0, text.size() - 1)), true},
        {"attrs", framed(R"({"transport":{)" + text), false},
        {"id", framed(envelope + R"("id":3536870912)" + text.substr(15)), false},
        {"truncate", good.substr(0, good.size() / 2), true},
    };
    for (const auto& [name, damaged, strikes_reports] : cases) {
        Host host;
        const auto kind = static_cast<std::size_t>(corruption_from_name(name).value());
        Countdown& fault = host.controller.response_faults().corrupt.at(kind);
        fault.set(2);
        for (const std::string& sent : {damaged, damaged, good}) {
            host.send(kMessageOut, request);
            EXPECT_EQ(host.read(kMessageIn), sent) << name;
        }
        fault.set(kAlways);
        host.send(kJobOut, R"({"metadata":{"version":1,"type":"status"}})");
        EXPECT_NE(Json::accept(host.read(kJobIn)), strikes_reports) << name;
    }
    EXPECT_FALSE(corruption_from_name("checks"));
}

TEST(MessageChannel, FaultsDropARequestAndDelayAResponse) {
    Host host;
    ResponseFaults& faults = host.controller.response_faults();
    faults.drop.set(1);
    EXPECT_TRUE(host.exchange(kVersionRequest).empty());
    EXPECT_TRUE(host.stats()["message"]["commands"].empty());
    faults.delay = 500;
    EXPECT_TRUE(host.exchange(kVersionRequest).empty());
    host.now += 499;
    EXPECT_EQ(host.read(kMessageIn), "");
    host.now += 1;
    EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), 1U);
    faults.delay = 0;
    faults.deep = 3;
    EXPECT_EQ(host.ask("bio_get_version").dump(), "[[[]]]");
    EXPECT_EQ(host.ask("bio_get_version").dump(), Host::bytes_of("1.0.0"));
}

TEST(MessageChannel, FaultsSendWhatNobodyAskedFor) {
    Host host;
    for (const std::size_t size : {1U, 64U, 65U, 128U}) {
        host.controller.send_garbage(Channel::job, size);
        EXPECT_EQ(host.read(kJobIn).size(), size);
        host.controller.send_raw(Channel::message, std::string(size, 'x'), host.now);
        EXPECT_EQ(host.packets(kMessageIn).size(), size / kMaxPacket + 1) << "the last is short";
    }
    host.controller.flood(Channel::job, 1);
    const std::string report = host.read(kJobIn);
    host.controller.flood(Channel::job, 2);
    EXPECT_EQ(host.read(kJobIn), report + report);
}

}  // namespace
}  // namespace jovusim::test
