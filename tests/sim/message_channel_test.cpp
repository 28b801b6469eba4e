// The message channel of the firmware model: frames, requests, responses, events.
#include <gtest/gtest.h>

#include <cstring>

#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Host = FirmwareHost;

TEST(MessageChannel, AnswersACommandUnderItsIdAndEchoesArguments) {
    Host host;
    const auto responses = host.exchange(Host::gcode(4294967295U, "G28"));
    ASSERT_EQ(responses.size(), 1U);
    EXPECT_EQ(
        responses[0].dump(),
        R"({"transport":{"attrs":["response"],"id":4294967295},"data":{"command":{"idx":5,)"
        R"("name":"gcode_process_command","args":{"command":[71,50,56,0]},"__return__":0}}})");
    EXPECT_EQ(host.violations(), 0U);
}

TEST(MessageChannel, ReassemblesFramesHoweverTheyAreCut) {
    const std::string two = Host::framed(Host::command(1, 0, "bio_get_version")) +
                            Host::framed(Host::command(2, 1, "bio_get_serial"));
    for (const std::size_t piece : {1U, 2U, 5U, 63U, 64U, 1000U}) {
        Host host;
        for (std::size_t at = 0; at < two.size(); at += piece) {
            host.send(kMessageOut, two.substr(at, piece));
        }
        EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), 2U) << "pieces of " << piece;
        EXPECT_EQ(host.violations(), 0U) << "pieces of " << piece;
    }
}

TEST(MessageChannel, FindsTheNextFrameBehindADamagedOne) {
    const std::string good = Host::framed(Host::command(1, 0, "bio_get_version"));
    std::string bad_check = good;
    bad_check[3] = 'x';
    std::string bad_end = good;
    bad_end.back() = '$';  // at once the start of the next frame
    const std::string zero_length("$\0\0\xFF\xFF", 5);
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"bytes before the frame", "abc" + good},
        {"wrong check", bad_check + good},
        {"wrong terminator", bad_end + good.substr(1)},
        {"length 0", zero_length + good},
    };
    for (const auto& c : cases) {
        Host host;
        host.send(kMessageOut, c.bytes);
        EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), 1U) << c.what;
        EXPECT_GT(host.violations(), 0U) << c.what;
    }
}

TEST(MessageChannel, ForgetsAFrameThatIsLeftUnfinished) {
    for (const Millis silence : {5000, 5001}) {
        Host host;
        host.send(kMessageOut, Host::framed(Host::command(1, 0, "bio_get_version")).substr(0, 20));
        host.now += silence;
        EXPECT_EQ(host.exchange(Host::command(2, 0, "bio_get_version")).size(),
                  silence > 5000 ? 1U : 0U);
        const auto violations = host.controller.take_violations();
        EXPECT_EQ(violations.at(0) == "message channel: an incomplete frame was dropped",
                  silence > 5000);
        EXPECT_EQ(violations.size() == 1, silence > 5000);
    }
}

struct BadRequest {
    const char* what;
    std::string payload;
    const char* violation;  ///< part of it
    bool answered;          ///< and then without a result
};

std::string envelope(const std::string& transport, const std::string& command) {
    return R"({"transport":)" + transport + R"(,"data":{"command":)" + command + "}}";
}

std::string repeated(int count, const char* what) {
    std::string out;
    while (count-- > 0)
        out += what;
    return out;
}

const std::string kTransport = R"({"attrs":["request","twoway"],"id":9})";
const std::string kVersion = R"({"idx":0,"name":"bio_get_version"})";

std::string gcode_args(const std::string& args) {
    return Host::command(9, 5, "gcode_process_command", args);
}

TEST(MessageChannel, ReportsEveryBreachOfTheRules) {
    const BadRequest cases[] = {
        {"no JSON", "{\"transport\":", "not JSON", false},
        {"deep", std::string(30000, '[') + std::string(30000, ']'), "too deeply", false},
        {"too deep", std::string(65, '[') + std::string(65, ']'), "too deeply", false},
        {"not too deep", std::string(64, '[') + std::string(64, ']'), "not an object", false},
        {"broad", "[[]" + repeated(99, ",{}") + "]", "not an object", false},
        {"an array", "[1,2]", "not an object", false},
        {"no transport", R"({"data":{"command":{"idx":0,"name":"bio_get_version"}}})", "no command",
         false},
        {"no command", R"({"transport":{"attrs":["request","twoway"],"id":1},"data":{}})",
         "no command", false},
        {"no id", envelope(R"({"attrs":["request","twoway"]})", kVersion), "id of a request",
         false},
        {"negative id", envelope(R"({"attrs":["request","twoway"],"id":-1})", kVersion),
         "id of a request", false},
        {"id too large", envelope(R"({"attrs":["request","twoway"],"id":4294967296})", kVersion),
         "id of a request", false},
        {"name with another idx", Host::command(9, 1, "bio_get_version"), "idx is 1", true},
        {"idx of another type", envelope(kTransport, R"({"idx":0.0,"name":"bio_get_version"})"),
         "idx is 0.0", true},
        {"unknown name", Host::command(9, 0, "bio_get"), "unknown command", true},
        {"name of another type", envelope(kTransport, R"({"idx":0,"name":7})"), "unknown command",
         true},
        {"args where there are none", Host::command(9, 0, "bio_get_version", "{}"),
         "takes no arguments", true},
        {"args missing", Host::command(9, 5, "gcode_process_command"), "missing", true},
        {"args empty", gcode_args("{}"), "\"args\" is {}", true},
        {"wrong key", gcode_args(R"({"cmd":[0]})"), "instead of \"command\"", true},
        {"text no array", gcode_args(R"({"command":"G28"})"), "not an array", true},
        {"text without elements", gcode_args(R"({"command":[]})"), "empty", true},
        {"text without its 0", gcode_args(R"({"command":[71]})"), "not 0", true},
        {"0 inside", gcode_args(R"({"command":[71,0,71,0]})"), "before the end", true},
        {"unsigned byte", gcode_args(R"({"command":[233,0]})"), "outside -128..127", true},
        {"fraction", gcode_args(R"({"command":[71.0,0]})"), "not an integer", true},
    };
    for (const BadRequest& c : cases) {
        Host host;
        const auto responses = host.exchange(c.payload);
        EXPECT_EQ(responses.size(), c.answered ? 1U : 0U) << c.what;
        for (const Json& response : responses) {
            EXPECT_EQ(response["transport"]["id"], 9) << c.what;
            EXPECT_FALSE(response["data"]["command"].contains("__return__")) << c.what;
        }
        const auto violations = host.controller.take_violations();
        ASSERT_FALSE(violations.empty()) << c.what;
        EXPECT_NE(violations.back().find(c.violation), std::string::npos)
            << c.what << ": " << violations.back();
        EXPECT_TRUE(host.stats()["message"]["commands"].empty()) << c.what;
    }
}

TEST(MessageChannel, CarriesOutWhatIsOnlyUntidy) {
    const struct {
        const char* what;
        std::string payload;
    } cases[] = {
        {"blank", envelope(kTransport, kVersion) + " "},
        {"tab", "\t" + envelope(kTransport, kVersion)},
        {"line feed", "\n" + envelope(kTransport, kVersion)},
        {"carriage return", envelope(kTransport, kVersion) + "\r"},
        {"order of the message",
         R"({"data":{"command":)" + kVersion + R"(},"transport":)" + kTransport + "}"},
        {"order of the envelope", envelope(R"({"id":9,"attrs":["request","twoway"]})", kVersion)},
        {"order of the command", envelope(kTransport, R"({"name":"bio_get_version","idx":0})")},
        {"order of the attrs", envelope(R"({"attrs":["twoway","request"],"id":9})", kVersion)},
        {"attrs missing", envelope(R"({"attrs":[],"id":9})", kVersion)},
        {"more in the body", envelope(kTransport, kVersion + R"(,"event":{})")},
    };
    for (const auto& c : cases) {
        Host host;
        const auto responses = host.exchange(c.payload);
        ASSERT_EQ(responses.size(), 1U) << c.what;
        EXPECT_TRUE(responses[0]["data"]["command"].contains("__return__")) << c.what;
        EXPECT_EQ(host.violations(), 1U) << c.what;
    }
}

TEST(MessageChannel, DoesNotAnswerOneway) {
    Host host;
    EXPECT_EQ(host.exchange(envelope(R"({"attrs":["request","oneway"],"id":9})", kVersion)).size(),
              0U);
    EXPECT_EQ(host.stats()["message"]["commands"]["bio_get_version"], 1);
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
    const std::string request = Host::command(1, 0, "bio_get_version");
    host.controller.response_faults().drop.set(1);
    EXPECT_TRUE(host.exchange(request).empty());
    EXPECT_TRUE(host.stats()["message"]["commands"].empty());
    host.controller.response_faults().delay = 500;
    EXPECT_TRUE(host.exchange(request).empty());
    host.now += 499;
    EXPECT_EQ(host.read(kMessageIn), "");
    host.now += 1;
    EXPECT_EQ(Host::messages(host.read(kMessageIn)).size(), 1U);
    host.controller.response_faults() = {};
    host.controller.response_faults().deep = 3;
    EXPECT_EQ(host.result("bio_get_version").dump(), "[[[]]]");
    EXPECT_EQ(host.result("bio_get_version").dump(), Host::bytes_of("1.0.0"));
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
    host.result("bio_get_version");
    EXPECT_EQ(idle(1000), 1);
}

}  // namespace
}  // namespace jovusim::test
