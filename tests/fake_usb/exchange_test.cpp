/// @file
/// Exchanges with a device, byte by byte.
#include "core/message.h"
#include "fake_usb/exchange_fixture.h"
#include "fake_usb/no_rtti_client.h"

namespace {

using test::kAddress;
using test::kResponse;
using test::with_hash;

class Exchange : public test::ExchangeTest {
protected:
    libusb_device* other = nullptr;
};

/// What a command returned, and why it failed if it did.
std::string told(const std::shared_ptr<char>& text) {
    const std::string reason = JovuTransport::last_send_error();
    const std::pair<const char*, JovuError> codes[] = {
        {"", JovuError::none},
        {"Transport Error - No response received.", JovuError::no_response},
        {"Send failed - libusb error: -6", JovuError::in_callback},
        {"Send failed - libusb error: -9", JovuError::stalled},
    };
    for (const auto& [of, code] : codes) {
        if (reason == of) {
            EXPECT_EQ(JovuTransport::last_send_error_code(), code) << reason;
        }
    }
    return (text == nullptr ? std::string("null") : text.get()) + "|" + reason;
}

TEST_F(Exchange, OnlyTheRightResponseEndsIt) {
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    const std::string good = R"({"command":{"__return__":[49]}}})";
    const std::string deep(65, '[');
    const std::string cases[] = {
        "not json",
        "[]",
        R"({"transport":[],"data":{}})",
        R"({"transport":{"attrs":{"a":1},"id":#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":1e300},"data":)" + good,
        deep + std::string(65, ']'),
        R"({"transport":{"attrs":["response"]},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":"#"},"data":)" + good,
        R"({"transport":{"id":#},"data":)" + good,
        R"({"transport":{"attrs":"response","id":#},"data":)" + good,
        R"({"transport":{"attrs":["Response","request",2,null],"id":#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":1#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":#},"data":[]})",
    };
    for (const std::string& dropped : cases)
        answer(dropped);
    answer(std::string(kResponse) + R"({"command":{"__return__":[50]}}})");
    EXPECT_EQ(result(), "2|");
    answer(std::string(kResponse) + good);  // Nobody waits for it any more.
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    answer(std::string(kResponse) + good);
    EXPECT_EQ(result(), "1|");
}

/// One bulk call is in its middle; what ends the connection has to wait for the rest of the frame.
TEST_F(Exchange, SendsAFrameWholeWhateverEndsItsConnection) {
    client.on_debug = [this](JovuDeviceAddress address, const std::string&) {
        const JovuScanPause pause;
        client.close(address);
    };
    const std::pair<const char*, std::function<void()>> ends[] = {
        {"close in a handler", [this] { test::complete_event(device); }},
        {"close", [this] { client.close(kAddress); }},
        {"shutdown", [this] { client.shutdown(); }},
    };
    std::size_t connects = 0;
    for (const auto& [what, end] : ends) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(client.wait_connected(kAddress, ++connects));
        const std::size_t before = fake_usb::sent().size();
        fake_usb::hold_bulk(true);
        auto command = std::async(std::launch::async,
                                  [this] { return told(client.bio_get_version(kAddress)); });
        ASSERT_TRUE(test::eventually(fake_usb::in_bulk));
        auto ending = std::async(std::launch::async, end);
        ending.wait_for(std::chrono::milliseconds(30));
        fake_usb::hold_bulk(false);
        EXPECT_EQ(command.get(), "null|Transport Error - No response received.");
        ending.get();
        const auto sent = fake_usb::sent();
        ASSERT_EQ(sent.size(), before + 2);
        EXPECT_EQ(sent[before + 1].bytes.back(), ';');
        fake_usb::unplug(device);
        EXPECT_TRUE(test::eventually([this] { return client.list_connected().empty(); }));
        device = fake_usb::plug(1, 5);
    }
}

TEST_F(Exchange, MatchesByIdAloneUnlessStrict) {
    const auto named = [](const char* command) {
        return std::string(kResponse) + R"({"command":{"name":")" + command +
               R"(","__return__":[49]}}})";
    };
    const auto plug_other = [this](std::size_t times) {
        other = fake_usb::plug(1, 6);
        EXPECT_TRUE(client.wait_connected({1, 6}, times));
    };
    plug_other(1);
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    answer(named("bio_get_serial"), other);
    EXPECT_EQ(result(), "1|");
    EXPECT_EQ(test::error_of([this] { client.set_strict_matching(true); }),
              "Strict matching must be chosen before the first exchange.");

    test::RecordingClient strict;
    strict.set_strict_matching(true);
    // The beginning of a frame that is cut off by an unplug.
    ASSERT_TRUE(fake_usb::complete(device, test::kMessagesIn, LIBUSB_TRANSFER_COMPLETED,
                                   "$\x40\x01\xBF\xFE{"));
    fake_usb::unplug(device);
    fake_usb::unplug(other);
    device = fake_usb::plug(1, 5);
    plug_other(2);
    ASSERT_TRUE(strict.wait_connected(kAddress) && strict.wait_connected({1, 6}));
    testing::internal::CaptureStdout();
    request_of([&strict] { return told(strict.bio_get_version(kAddress)); });
    answer(named("bio_get_version"), other);
    answer(named("bio_get_version"), other);
    answer(named("bio_get_version"));
    EXPECT_EQ(result(), "1|");
    request_of([&strict] { return told(strict.bio_get_version(kAddress)); });
    answer(named("bio_get_serial"));
    answer(std::string(kResponse) + R"({"command":{"__return__":[50]}}})");
    EXPECT_EQ(result(), "2|");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_THAT(with_hash(printed, "JovuMessage: "),
                testing::MatchesRegex(
                    "JovuMessage: # -- Response of 1:6 dropped - it came over another connection.\n"
                    "JovuMessage: .* -- Response of 1:5 dropped - it names another command.\n"));
}

/// A message that is being compiled, which takes as long as the test wants.
class SlowMessage : public JovuMessage {
public:
    SlowMessage(JovuTransport& sender, test::Barrier& barrier)
        : JovuMessage(sender, jovu::kEventFlags, nullptr), barrier_(barrier) {}
    void compile_data(yajl_gen g) override {
        begun = true;
        barrier_.wait();
        JovuMessage::compile_data(g);
    }
    std::atomic<bool> begun{false};

private:
    test::Barrier& barrier_;
};

TEST_F(Exchange, IsOverBeforeADisconnectionIsNotified) {
    test::Barrier barrier;
    SlowMessage message(client, barrier);
    auto sending = std::async(std::launch::async, [&] { message.send(kAddress); });
    ASSERT_TRUE(test::eventually([&] { return message.begun.load(); }));
    fake_usb::unplug(device);
    ASSERT_TRUE(test::eventually([this] { return client.list_connected().empty(); }));
    EXPECT_EQ(sending.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    EXPECT_EQ(client.disconnects(kAddress), 0U);
    barrier.open();
    EXPECT_TRUE(client.wait_disconnected(kAddress));
}

TEST_F(Exchange, KeepsTheReasonOfItsOwnThreadCutTo255Bytes) {
    struct Broken : JovuMessage {
        using JovuMessage::JovuMessage;
        void compile_data(yajl_gen) override { throw JovuException(std::string(300, 'x')); }
    };
    Broken(client, jovu::kEventFlags, nullptr).send(kAddress);
    std::thread([] { EXPECT_EQ(JovuTransport::last_send_error(), ""); }).join();
    EXPECT_EQ(JovuTransport::last_send_error(), std::string(255, 'x'));

    // A handler fails on the thread of a sender, which handles events while the watcher scans.
    const auto scan = std::make_shared<test::Barrier>();  // The watcher leaves it at the end.
    std::string failure;
    client.on_debug = [&](JovuDeviceAddress, const std::string&) {
        failure = told(client.bio_get_version(kAddress));
    };
    const unsigned lists = fake_usb::calls(fake_usb::Call::list);
    fake_usb::script(fake_usb::Call::list, {{0, [scan] { scan->wait(); }}});
    ASSERT_TRUE(test::eventually([=] { return fake_usb::calls(fake_usb::Call::list) > lists; }));
    fake_usb::hold_bulk(true);
    auto sending = std::async(std::launch::async, [this] {
        JovuMessage(client, jovu::kEventFlags, nullptr).send(kAddress);
        return told(nullptr);
    });
    test::complete_event(device);
    fake_usb::hold_bulk(false);
    EXPECT_EQ(sending.get(), "null|");
    EXPECT_EQ(failure, "null|Send failed - libusb error: -6");
    scan->open();
}

TEST_F(Exchange, EventsReachAnApplicationWithoutRunTimeTypeInformation) {
    std::atomic<int> events{0};
    const auto quiet = test::make_client_without_rtti(events);
    test::complete_event(device);
    EXPECT_EQ(events, 1);
}

TEST_F(Exchange, FailsInOneLineThatNamesTheReason) {
    const auto version = [this](JovuDeviceAddress address) {
        testing::internal::CaptureStdout();
        const std::string answer = told(client.bio_get_version(address));
        const std::string printed = testing::internal::GetCapturedStdout();
        return answer + "|" + with_hash(printed, "JovuMessage: ");
    };
    const std::string gone = "Transport Error - Device has been disconnected.";
    EXPECT_EQ(version({1, 6}), "null|" + gone + "|JovuMessage: # -- " + gone + "\n");
    EXPECT_TRUE(fake_usb::sent().empty());
    fake_usb::script_bulk({{}, {LIBUSB_ERROR_PIPE, 0}});
    const std::string stalled = "Send failed - libusb error: -9";
    EXPECT_EQ(version(kAddress), "null|" + stalled + "|JovuMessage: # -- " + stalled + "\n");

    request_of([this] { return told(client.bio_get_version(kAddress)); });
    answer(std::string(kResponse) + R"({"command":{"__return__":true}}})");
    EXPECT_EQ(result(), "null|Transport Error - No response received.");
    // A command without a result takes any kind of one.
    request_of([this] {
        client.servo_dc_move_start_sync(kAddress);
        return told(nullptr);
    });
    answer(std::string(kResponse) + R"({"command":{"__return__":null}}})");
    EXPECT_EQ(result(), "null|");
    request_of([this] { return told(client.bio_get_version(kAddress)); });
    fake_usb::unplug(device);
    EXPECT_EQ(result(), "null|Transport Error - No response received.");
}

/// Whichever client sends it. A shutdown ends the one that waits for a response and those behind.
TEST_F(Exchange, TheNextOneWithADeviceWaitsForTheLast) {
    test::RecordingClient another;
    fake_usb::unplug(device);
    device = fake_usb::plug(1, 5);
    ASSERT_TRUE(another.wait_connected(kAddress) && client.wait_connected(kAddress, 2));
    request_of([&] { return told(another.bio_get_version(kAddress)); });
    std::future<std::string> behind[2];
    for (std::size_t i = 0; i < 2; ++i) {
        behind[i] = std::async(std::launch::async,
                               [this] { return told(client.bio_get_serial(kAddress)); });
        EXPECT_EQ(behind[i].wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    }
    EXPECT_EQ(fake_usb::sent().size(), 2U);
    answer(std::string(kResponse) + R"({"command":{"__return__":[49]}}})");
    EXPECT_EQ(result(), "1|");
    ASSERT_TRUE(test::eventually([] { return fake_usb::sent().size() == 4; }));
    client.shutdown();
    EXPECT_EQ(behind[0].get(), "null|Transport Error - No response received.");
    EXPECT_EQ(behind[1].get(), "null|Transport Error - Device has been disconnected.");
    EXPECT_EQ(fake_usb::sent().size(), 4U);
}

/// Also the handlers' objects are gone behind it.
TEST_F(Exchange, AndNotificationsAreOverWhenShutdownReturns) {
    for (const bool notified : {false, true}) {
        test::Barrier barrier;
        test::RecordingClient another;
        fake_usb::unplug(device);
        device = fake_usb::plug(1, 5);
        ASSERT_TRUE(another.wait_connected(kAddress));
        SlowMessage message(another, barrier);
        another.on_disconnected = [&](JovuDeviceAddress) {
            message.begun = true;
            barrier.wait();
        };
        auto running = std::async(std::launch::async, [&] {
            notified ? fake_usb::unplug(device) : message.send(kAddress);
        });
        ASSERT_TRUE(test::eventually([&] { return message.begun.load(); }));
        auto ending = std::async(std::launch::async, [&] { another.shutdown(); });
        EXPECT_EQ(ending.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
        barrier.open();
        test::in_time("shutdown", [&] { ending.get(); });
    }
}

TEST_F(Exchange, AHandlerMayEndAnotherClientButBuildNone) {
    auto another = std::make_unique<test::RecordingClient>();
    std::vector<std::string> errors;
    client.on_debug = [&](JovuDeviceAddress, const std::string&) {
        errors = {test::error_of([] { test::RecordingClient third; }),
                  test::error_of([&] { another->shutdown(); })};
    };
    test::complete_event(device);
    EXPECT_THAT(errors, testing::ElementsAre(
                            "Register failed - called from inside a notice or delivery.", ""));
    test::complete_event(device);
    EXPECT_EQ(client.texts().size(), 2U);
    EXPECT_TRUE(another->texts().empty()) << "cut off at once";
}

TEST_F(Exchange, SeveralNotificationsMayEndTheirClient) {
    libusb_device* const second = fake_usb::plug(1, 6);
    ASSERT_TRUE(client.wait_connected({1, 6}));
    std::atomic<int> inside{0};
    std::atomic<int> ended{0};
    client.on_disconnected = [&](JovuDeviceAddress) {
        ++inside;
        test::eventually([&] { return inside == 2; });
        client.shutdown();
        ++ended;
        EXPECT_TRUE(test::eventually([&] { return ended == 2; })) << "neither waits for the other";
    };
    fake_usb::unplug(device);
    fake_usb::unplug(second);
    EXPECT_TRUE(test::eventually([&] { return ended == 2; }));
    client.shutdown();  // The handlers use what is declared here.
}

}  // namespace
