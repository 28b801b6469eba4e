#include <gtest/gtest.h>

#include "events/firmware_event.h"
#include "jovu/event_interface.h"
#include "support/heap.h"
#include "support/recording_client.h"

namespace {

constexpr JovuDeviceAddress kAddress{1, 5};

/// Runs @p event on a message with this "event" object.
void execute(JovuTransport& transport, JovuEvent& event, const std::string& body) {
    const jovu::JsonTree tree = jovu::parse_json(R"({"event":)" + body + "}");
    auto message = std::make_shared<JovuMessage>(transport, 5U, 1U, tree.get());
    event.execute(kAddress, message);
}

TEST(DebugEvent, HandsOverTheBytesOfItsFirstArgumentOrIsDropped) {
    test::RecordingClient client;
    const struct {
        const char* body;
        int calls;
        const char* text;
    } cases[] = {
        {R"({"args":{"text":[72,105,0]}})", 1, "Hi"},
        {R"({"args":{"x":[72,105]}})", 1, "Hi"},
        {R"({"args":{"x":[72],"text":[105]}})", 1, "H"},
        {R"({"args":{"x":[-23,328]}})", 1, "\xE9H"},
        {R"({"args":{"x":[]}})", 1, ""},
        {R"({"name":"debug_event"})", 1, nullptr},
        {R"({"args":[]})", 0, nullptr},
        {R"({"args":5})", 0, nullptr},
        {R"({"args":{}})", 1, nullptr},
        {R"({"args":{"x":"Hi"}})", 0, nullptr},
        {R"({"args":{"x":null,"text":[72]}})", 0, nullptr},
        {R"({"args":{"x":[72,"i"]}})", 0, nullptr},
        {R"({"args":{"x":[[72]]}})", 0, nullptr},
    };
    for (const auto& row : cases) {
        int calls = 0;
        std::shared_ptr<char> text;
        JovuFirmwareEvent<std::shared_ptr<char>> event(
            client,
            [&](JovuDeviceAddress address, std::shared_ptr<char> told) {
                EXPECT_TRUE(address == kAddress);
                ++calls;
                text = std::move(told);
            },
            "debug_event", 0);
        execute(client, event, row.body);
        EXPECT_EQ(calls, row.calls) << row.body;
        EXPECT_STREQ(text.get(), row.text) << row.body;
    }
}

TEST(ServoTraceEvent, CutsNumbersToTheirFieldsAndWantsAllOfThem) {
    test::RecordingClient client;
    servo_trace_msg sample{};
    int calls = 0;
    JovuFirmwareEvent<servo_trace_msg> event(
        client,
        [&](JovuDeviceAddress, servo_trace_msg told) {
            ++calls;
            sample = told;
        },
        "servo_dc_trace_event", 1);
    const std::string six =
        R"("servo_name":65538,"servo_state":-2,"int_cnt":4294967295,"pos_cmd":-7,"pos":4294967297,)"
        R"("padout_dist":2147483648)";
    execute(client, event, R"({"args":{"any":{)" + six + R"(,"pwm":70000}}})");
    ASSERT_EQ(calls, 1);
    EXPECT_EQ(sample.servo_name, 2);
    EXPECT_EQ(sample.servo_state, -2);
    EXPECT_EQ(sample.int_cnt, 4294967295U);
    EXPECT_EQ(sample.pos_cmd, -7);
    EXPECT_EQ(sample.pos, 1);
    EXPECT_EQ(sample.pwm, 4464);
    EXPECT_EQ(sample.padout_dist, -2147483647 - 1);
    for (const std::string& args :
         {R"({"any":{)" + six + "}}", R"({"any":{)" + six + R"(,"pwm":"1"}})",
          std::string(R"({"any":[1,2,3,4,5,6,7]})"), std::string(R"({"any":1})")}) {
        execute(client, event, R"({"args":)" + args + "}");
        EXPECT_EQ(calls, 1) << args;
    }
    for (const char* const none : {"{}", R"({"args":{}})"}) {
        sample.pwm = 1;
        execute(client, event, none);
        EXPECT_EQ(sample.pwm, 0) << "without an argument the sample is all zero";
    }
    EXPECT_EQ(calls, 3);
}

TEST(EventInterface, DispatchesByNameAndIgnoresOthers) {
    test::RecordingClient client;
    const std::pair<const char*, std::size_t> bodies_and_calls[] = {
        {R"({"event":{"name":"debug_event","args":{"t":[72]}}})", 1},
        {R"({"event":{"name":"unheard_of","args":{"t":[72]}}})", 0},
        {R"({"event":{"name":5,"args":{"t":[72]}}})", 0},
        {R"({"event":{"args":{"t":[72]}}})", 0},
        {R"({"status":{}})", 0},
        {R"({"command":{},"event":{"name":"debug_event","args":{"t":[72]}}})", 0},
    };
    std::size_t calls = 0;
    for (const auto& [body, more] : bodies_and_calls) {
        const jovu::JsonTree tree = jovu::parse_json(body);
        auto message = JovuMessage::elevate(JovuMessage(client, 5, 1, tree.get()));
        message->handle_receive(kAddress, message);
        calls += more;
        EXPECT_EQ(client.texts().size(), calls) << body;
    }
}

TEST(EventInterface, RemembersABoundedNumberOfNamesThatAreMadeUp) {
    test::RecordingClient client;
    JovuEvent* const known = client.get_firmware_event("debug_event");
    ASSERT_NE(known, nullptr);
    // Long enough to stand out from what the link's own thread takes and gives back meanwhile.
    constexpr std::size_t kLength = 60000;
    const auto kept = [&](std::size_t number) {
        const std::size_t before = test::heap_in_use();
        EXPECT_EQ(client.get_firmware_event(std::to_string(number) + std::string(kLength, 'x')),
                  nullptr);
        return test::heap_in_use() > before + kLength / 2;
    };
    for (std::size_t i = 0; i < 1000; ++i)
        EXPECT_EQ(kept(i), i < 64) << i;
    EXPECT_EQ(client.get_firmware_event("debug_event"), known);
    EXPECT_NE(client.get_firmware_event("servo_dc_trace_event"), nullptr);
}

}  // namespace
