// SPDX-License-Identifier: Apache-2.0
#include "jovu/event_interface.h"

#include <gtest/gtest.h>

#include <sstream>

#include "core/message.h"
#include "jovu/client.h"
#include "json/json_tree.h"
#include "support/heap.h"

namespace {

struct Client : JovuClient {
    explicit Client(const JovuScanPause& /*until_built*/ = {}) {}
    ~Client() override { shutdown(); }
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override {
        EXPECT_EQ(address.address, 5);
        calls << (text == nullptr ? "null" : text.get()) << '|';
    }
    void servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) override {
        EXPECT_EQ(address.address, 5);
        calls << sample.servo_name << ' ' << sample.servo_state << ' ' << sample.int_cnt << ' '
              << sample.pos_cmd << ' ' << sample.pos << ' ' << sample.pwm << ' '
              << sample.padout_dist << '|';
    }
    std::ostringstream calls;
};

TEST(EventInterface, CallsTheHandlerOfTheNameWithWhatCanBeReadOrNone) {
    const auto event = [](const std::string& name, const std::string& args) {
        return R"({"event":{"name":")" + name + "\"" + args + "}}";
    };
    const auto debug = [&](const std::string& args) { return event("debug_event", args); };
    const auto trace = [&](const std::string& args) { return event("servo_dc_trace_event", args); };
    const std::string six =
        R"("servo_name":65538,"servo_state":-2,"int_cnt":4294967295,"pos_cmd":-7,"pos":4294967297,)"
        R"("padout_dist":2147483648)";
    const std::pair<std::string, const char*> rows[] = {
        {debug(R"(,"args":{"text":[72,105,0]})"), "Hi|"},
        {debug(R"(,"args":{"x":[72],"text":[105]})"), "H|"},
        {debug(R"(,"args":{"x":[-23,328]})"), "\xE9H|"},
        {debug(R"(,"args":{"x":[]})"), "|"},
        {debug(""), "null|"},
        {debug(R"(,"args":{})"), "null|"},
        {debug(R"(,"args":[])"), ""},
        {debug(R"(,"args":5)"), ""},
        {debug(R"(,"args":{"x":"Hi"})"), ""},
        {debug(R"(,"args":{"x":null,"text":[72]})"), ""},
        {debug(R"(,"args":{"x":[72,"i"]})"), ""},
        {debug(R"(,"args":{"x":[[72]]})"), ""},
        {trace(R"(,"args":{"any":{)" + six + R"(,"pwm":70000}})"),
         "2 -2 4294967295 -7 1 4464 -2147483648|"},
        {trace(""), "0 0 0 0 0 0 0|"},
        {trace(R"(,"args":{})"), "0 0 0 0 0 0 0|"},
        {trace(R"(,"args":{"any":{)" + six + "}}"), ""},
        {trace(R"(,"args":{"any":{)" + six + R"(,"pwm":"1"}})"), ""},
        {trace(R"(,"args":{"any":[1,2,3,4,5,6,7]})"), ""},
        {trace(R"(,"args":{"any":1})"), ""},
        {R"({"event":{"name":"unheard_of","args":{"t":[72]}}})", ""},
        {R"({"event":{"name":5,"args":{"t":[72]}}})", ""},
        {R"({"event":{"args":{"t":[72]}}})", ""},
        {R"({"status":{}})", ""},
        {R"({"command":{},"event":{"name":"debug_event","args":{"t":[72]}}})", ""},
        {R"({"command":[],"event":{"name":"debug_event","args":{"t":[72]}}})", "H|"},
        {R"({"event":"debug_event","command":1})", ""},
    };
    Client client;
    for (const auto& [body, calls] : rows) {
        const jovu::JsonTree tree(body);
        auto message = JovuMessage::elevate(JovuMessage(client, 5, 1, tree.get()));
        message->handle_receive({1, 5}, message);
        EXPECT_EQ(client.calls.str(), calls) << body;
        client.calls.str("");
    }
}

TEST(EventInterface, RemembersABoundedNumberOfUnknownNames) {
    Client client;
    JovuEvent* const known = client.get_firmware_event("debug_event");
    ASSERT_NE(known, nullptr);
    // Long enough to stand out from what the watcher allocates and frees meanwhile; a sanitizer's
    // allocator rounds it up to 64 KiB.
    constexpr std::size_t kLength = 65000;
    const std::size_t before = test::heap_in_use();
    for (int i = 0; i < 1000; ++i) {
        const std::string name = std::to_string(i) + std::string(kLength, 'x');
        EXPECT_EQ(client.get_firmware_event(name), nullptr);
    }
    EXPECT_EQ((test::heap_in_use() - before + kLength / 4) / kLength, 64U);
    EXPECT_EQ(client.get_firmware_event("debug_event"), known);
    EXPECT_NE(client.get_firmware_event("servo_dc_trace_event"), nullptr);
}

}  // namespace
