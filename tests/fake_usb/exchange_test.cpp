// SPDX-License-Identifier: Apache-2.0

/// @file
/// Exchanges with a device, byte by byte.
#include "core/message.h"
#include "fake_usb/backend_fixture.h"
#include "jovu/response_timeout.h"

namespace test {
namespace {

using std::chrono::milliseconds;

constexpr const char* kNoResponse = "null|Transport Error - No response received.";
constexpr const char* kTimedOut =
    "null|Transport Error - Waiting for response to request timed out.";
constexpr const char* kCancelled = "null|Transport Error - Cancelled.";
constexpr const char* kDisconnected = "null|Transport Error - Device has been disconnected.";

class Exchange : public ExchangeTest {
protected:
    /// What a command returned, and why it failed if it did.
    static std::string told(const std::shared_ptr<char>& text) {
        const std::string reason = JovuTransport::last_send_error();
        const JovuError code = JovuTransport::last_send_error_code();
        EXPECT_EQ(reason.empty(), code == JovuError::none);
        const std::string told =
            (text == nullptr ? std::string("null") : text.get()) + "|" + reason;
        EXPECT_EQ(told == kNoResponse, code == JovuError::no_response);
        EXPECT_EQ(told == kTimedOut, code == JovuError::response_timed_out);
        EXPECT_EQ(told == kCancelled, code == JovuError::cancelled);
        return told;
    }
    static std::string version(RecordingClient& from, JovuDeviceAddress address = kAddress) {
        return told(from.bio_get_version(address));
    }

    /// Unplugs the device and plugs in another one.
    void replug() {
        fake_usb::unplug(device);
        EXPECT_TRUE(eventually([this] { return client.list_connected().empty(); }));
        device = fake_usb::plug(1, 5);
    }

    /// Sends a request.
    void request(RecordingClient& from) {
        request_of([&from] { return version(from); });
    }
};

TEST_F(Exchange, OnlyTheRightResponseEndsIt) {
    request(client);
    const std::string good = R"({"command":{"__return__":[49]}}})";
    const std::string cases[] = {
        "not json",
        "[]",
        R"({"transport":[],"data":{}})",
        R"({"transport":{"attrs":{"a":1},"id":#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":1e300},"data":)" + good,
        std::string(65, '[') + std::string(65, ']'),
        R"({"transport":{"attrs":["response"]},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":"#"},"data":)" + good,
        R"({"transport":{"id":#},"data":)" + good,
        R"({"transport":{"attrs":"response","id":#},"data":)" + good,
        R"({"transport":{"attrs":["Response","request",2,null],"id":#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":1#},"data":)" + good,
        R"({"transport":{"attrs":["response"],"id":#},"data":[]})",
    };
    for (const std::string& dropped : cases)
        respond(dropped);
    respond_with(R"({"__return__":[50]})");
    EXPECT_EQ(result(), "2|");
    respond_with(R"({"__return__":[51]})");  // No request waits for it any more.
    request(client);
    respond_with(R"({"__return__":[49]})");
    EXPECT_EQ(result(), "1|");
}

TEST_F(Exchange, TimesOutWithoutAResponseAndTheNextOneWorks) {
    const milliseconds longest = std::chrono::hours(24);
    const milliseconds brief(60);
    const auto scoped = [this](milliseconds limit, milliseconds inner, bool ends) {
        const JovuResponseTimeout outer(limit);
        auto scope = std::make_unique<JovuResponseTimeout>(inner);
        if (ends) scope.reset();
        return version(client);
    };
    const std::pair<std::function<std::string()>, milliseconds> rows[] = {
        {[this] { return version(client); }, milliseconds(14900)},
        {[&] { return client.set_response_timeout(brief), version(client); }, brief},
        {[&] { return scoped(longest, 2 * brief, false); }, 2 * brief},
        {[&] { return scoped(2 * brief, longest, true); }, 2 * brief},
    };
    for (const auto& [command, least] : rows) {
        const auto begin = std::chrono::steady_clock::now();
        request_of(command);
        EXPECT_EQ(result(), kTimedOut);
        const auto taken = std::chrono::steady_clock::now() - begin;
        EXPECT_TRUE(taken >= least && taken < least + std::chrono::seconds(9)) << least.count();
    }
    client.set_response_timeout(longest);
    for (const milliseconds bad : {milliseconds(9), milliseconds(-1), longest + milliseconds(1)}) {
        const std::string refused = "Response time-out of " + std::to_string(bad.count()) +
                                    " ms refused - choose 10 ms to 24 h.";
        EXPECT_EQ(error_of([&] { client.set_response_timeout(bad); }), refused);
        EXPECT_EQ(error_of([&] { const JovuResponseTimeout scope(bad); }), refused);
    }
    request(client);
    respond_with(R"({"__return__":[49]})");
    EXPECT_EQ(result(), "1|");
}

/// One bulk call is in its middle; what ends the exchange has to wait for the rest of the frame.
TEST_F(Exchange, SendsAFrameWholeWhateverEndsIt) {
    client.on_debug = [this](JovuDeviceAddress address, const std::string&) {
        const JovuScanPause pause;
        client.close(address);
    };
    const auto cancel = [this](std::size_t expected) {
        EXPECT_EQ(client.cancel_exchanges(kAddress), expected);
    };
    const struct {
        std::function<void()> end;
        const char* result = kNoResponse;
        bool twoway = true;
    } rows[] = {
        {[this] { send_event(device); }}, {[this] { client.close(kAddress); }},
        {[&] { cancel(1); }, kCancelled}, {[&] { cancel(0); }, "null|", false},
        {[this] { client.shutdown(); }},
    };
    std::size_t connects = 0;
    for (const auto& row : rows) {
        ASSERT_TRUE(client.wait_connected(kAddress, ++connects));
        const std::size_t before = fake_usb::sent().size();
        fake_usb::hold_bulk(true);
        auto command = std::async(std::launch::async, [&] {
            if (row.twoway) return version(client);
            JovuMessage(client, jovu::kEventFlags, nullptr).send(kAddress);
            return told(nullptr);
        });
        ASSERT_TRUE(eventually([=] { return fake_usb::sent().size() > before; }));
        auto ending = std::async(std::launch::async, row.end);
        ending.wait_for(std::chrono::milliseconds(30));
        fake_usb::hold_bulk(false);
        EXPECT_EQ(command.get(), row.result);
        ending.get();
        const auto sent = fake_usb::sent();
        ASSERT_EQ(sent.size(), before + 2);
        EXPECT_EQ(sent[before + 1].bytes.back(), ';');
        replug();
    }
}

/// Those of one client, by another thread and in a callback.
TEST_F(Exchange, IsCancelledWhileItWaitsAndTheDeviceStays) {
    RecordingClient another;
    replug();
    ASSERT_TRUE(another.wait_connected(kAddress) && client.wait_connected(kAddress, 2));
    std::size_t cancelled = 0;
    const std::function<void()> ways[] = {
        [&] { cancelled = client.cancel_exchanges(kAddress); },
        [this] { send_event(device); },
    };
    client.on_debug = [&](JovuDeviceAddress, const std::string&) { ways[0](); };
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& way : ways) {
        for (const bool own : {true, false}) {
            request(own ? client : another);
            auto behind = std::async(std::launch::async, [this] { return version(client); });
            EXPECT_TRUE(waits(behind));
            way();
            EXPECT_EQ(cancelled, own ? 2U : 1U);
            EXPECT_EQ(behind.get(), kCancelled);
            respond_with(R"({"__return__":[49]})");
            EXPECT_EQ(result(), own ? kCancelled : "1|");
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(14));
    request(client);
    respond_with(R"({"__return__":[49]})");
    EXPECT_EQ(result(), "1|");
    EXPECT_EQ(client.cancel_exchanges(kAddress) + client.cancel_exchanges({9, 9}), 0U);
}

TEST_F(Exchange, ADeviceThatIsClosedIsToldFromOneThatHasLeft) {
    const auto expect = [this](const std::string& code) {
        EXPECT_EQ(version(client), kDisconnected);
        EXPECT_EQ(jovu_error_name(JovuTransport::last_send_error_code()), code);
        const std::string gone = " failed - Device no longer connected.";
        EXPECT_EQ(error_of([this] { client.RequestStatus(kAddress); }, true),
                  code + ": Send" + gone);
        EXPECT_EQ(error_of([this] { client.close(kAddress); }, true), code + ": Close" + gone);
    };
    client.close(kAddress);
    expect("closed");
    fake_usb::unplug(device);
    ASSERT_TRUE(eventually([this] { return client.list_connected().empty(); }));
    expect("disconnected");
}

TEST_F(Exchange, MatchesByIdAloneUnlessStrict) {
    libusb_device* other = fake_usb::plug(1, 6);
    ASSERT_TRUE(client.wait_connected({1, 6}));
    request(client);
    respond_with(R"({"name":"bio_get_serial","__return__":[49]})", other);
    EXPECT_EQ(result(), "1|");
    EXPECT_EQ(error_of([this] { client.set_strict_matching(true); }),
              "Strict matching must be chosen before the first exchange.");

    RecordingClient strict;
    strict.set_strict_matching(true);
    // The beginning of a frame that is cut off by an unplug.
    ASSERT_TRUE(
        fake_usb::complete(device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "$\x40\x01\xBF\xFE{"));
    fake_usb::unplug(other);
    replug();
    other = fake_usb::plug(1, 6);
    ASSERT_TRUE(strict.wait_connected(kAddress) && strict.wait_connected({1, 6}));
    testing::internal::CaptureStdout();
    request(strict);
    const std::string right = R"({"name":"bio_get_version","__return__":[49]})";
    respond_with(right, other);
    respond_with(right, other);
    respond_with(right);
    EXPECT_EQ(result(), "1|");
    request(strict);
    respond_with(R"({"name":"bio_get_serial","__return__":[49]})");
    respond_with(R"({"__return__":[50]})");
    EXPECT_EQ(result(), "2|");
    EXPECT_THAT(
        testing::internal::GetCapturedStdout(),
        testing::MatchesRegex(
            "JovuMessage: [0-9]+ -- Response of 1:6 dropped - it came over another connection.\n"
            "JovuMessage: [0-9]+ -- Response of 1:5 dropped - it names another command.\n"));
}

TEST_F(Exchange, KeepsTheReasonOfItsOwnThreadCutTo255Bytes) {
    struct Broken : JovuMessage {
        using JovuMessage::JovuMessage;
        void compile_data(yajl_gen) override { throw JovuException(std::string(300, 'x')); }
    };
    testing::internal::CaptureStdout();
    Broken(client, jovu::kEventFlags, nullptr).send(kAddress);
    std::thread([] { EXPECT_EQ(JovuTransport::last_send_error(), ""); }).join();
    EXPECT_EQ(JovuTransport::last_send_error(), std::string(255, 'x'));

    // A handler fails on the thread of a sender, which handles events while the watcher scans. What
    // the handler throws passes to the watcher.
    const auto scan = std::make_shared<std::promise<void>>();  // The watcher leaves it at the end.
    std::string failure;
    client.on_debug = [&](JovuDeviceAddress, const std::string&) {
        failure = version(client);
        EXPECT_EQ(JovuTransport::last_send_error_code(), JovuError::in_callback);
        throw JovuException("odd");
    };
    const unsigned lists = fake_usb::calls(fake_usb::Call::list);
    fake_usb::script(fake_usb::Call::list, {{0, [scan] { scan->get_future().wait(); }}});
    ASSERT_TRUE(eventually([=] { return fake_usb::calls(fake_usb::Call::list) > lists; }));
    fake_usb::hold_bulk(true);
    auto sending = std::async(std::launch::async, [this] {
        JovuMessage(client, jovu::kEventFlags, nullptr).send(kAddress);
        return told(nullptr);
    });
    send_event(device);
    fake_usb::hold_bulk(false);
    EXPECT_EQ(sending.get(), "null|");
    EXPECT_EQ(failure, "null|Send failed - libusb error: -6");
    scan->set_value();
    EXPECT_TRUE(watcher_ends());
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::HasSubstr("Fatal error in hotplug thread - odd.\n"));
}

TEST_F(Exchange, FailsInOneLineThatNamesTheReason) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(version(client, {1, 6}), "null|Transport Error - Device has been disconnected.");
    EXPECT_TRUE(fake_usb::sent().empty());
    fake_usb::script(fake_usb::Call::bulk, {0, LIBUSB_ERROR_PIPE});
    EXPECT_EQ(version(client), "null|Send failed - libusb error: -9");
    EXPECT_EQ(JovuTransport::last_send_error_code(), JovuError::stalled);
    request(client);
    respond_with(R"({"__return__":true})");
    EXPECT_EQ(result(), kNoResponse);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex(
                    "JovuMessage: [0-9]+ -- Transport Error - Device has been disconnected.\n"
                    "JovuMessage: [0-9]+ -- Send failed - libusb error: -9\n"
                    "JovuMessage: [0-9]+ -- Transport Error - No response received.\n"));
    // A command without a result takes any kind of one.
    request_of([this] {
        client.servo_dc_move_start_sync(kAddress);
        return told(nullptr);
    });
    respond_with(R"({"__return__":null})");
    EXPECT_EQ(result(), "null|");
    request(client);
    fake_usb::unplug(device);
    EXPECT_EQ(result(), kNoResponse);
}

/// Whichever client sends it. A shutdown ends the one that waits for a response and those behind.
TEST_F(Exchange, TheNextOneWithADeviceWaitsForTheLast) {
    RecordingClient another;
    replug();
    ASSERT_TRUE(another.wait_connected(kAddress) && client.wait_connected(kAddress, 2));
    request(another);
    std::future<std::string> behind[2];
    for (auto& running : behind) {
        running = std::async(std::launch::async, [this] { return version(client); });
        EXPECT_TRUE(waits(running));
    }
    EXPECT_EQ(fake_usb::sent().size(), 2U);
    respond_with(R"({"__return__":[49]})");
    EXPECT_EQ(result(), "1|");
    ASSERT_TRUE(eventually([] { return fake_usb::sent().size() == 4; }));
    client.shutdown();
    EXPECT_EQ(behind[0].get(), kNoResponse);
    EXPECT_EQ(behind[1].get(), "null|Transport Error - Device has been disconnected.");
    EXPECT_EQ(fake_usb::sent().size(), 4U);
}

/// An exchange ends before the disconnection is notified, and both before shutdown() returns: what
/// handlers use is destroyed after it.
TEST_F(Exchange, AndNotificationsAreWaitedFor) {
    struct SlowMessage : JovuMessage {
        using JovuMessage::JovuMessage;
        void compile_data(yajl_gen g) override {
            meanwhile();
            JovuMessage::compile_data(g);
        }
        std::function<void()> meanwhile;
    };
    JovuDeviceAddress address{1, 5};
    for (const auto& [exchange, shutdown] : {std::pair(true, true), {true, false}, {false, true}}) {
        std::promise<void> barrier;
        std::atomic<bool> begun{false};
        const auto last_long = [&] {
            begun = true;
            barrier.get_future().wait();
        };
        RecordingClient another;
        ++address.address;
        device = fake_usb::plug(address.bus, address.address);
        ASSERT_TRUE(another.wait_connected(address));
        SlowMessage message(another, jovu::kEventFlags, nullptr);
        message.meanwhile = last_long;
        if (!exchange) another.on_disconnected = [&](JovuDeviceAddress) { last_long(); };
        auto running = std::async(std::launch::async, [&, exchange = exchange] {
            exchange ? message.send(address) : fake_usb::unplug(device);
        });
        ASSERT_TRUE(eventually([&] { return begun.load(); }));
        auto ending = std::async(std::launch::async, [&, shutdown = shutdown] {
            if (shutdown) return another.shutdown();
            fake_usb::unplug(device);
            EXPECT_TRUE(another.wait_disconnected(address));
        });
        ASSERT_TRUE(shutdown || eventually([&] {
                        const auto left = JovuUsb::list_connected();
                        return std::count(left.begin(), left.end(), address) == 0;
                    }));
        EXPECT_TRUE(waits(ending));
        barrier.set_value();
        ending.get();
    }
}

/// While another thread is in the middle of an exchange, and while none is: the callback's calls
/// return at once either way.
TEST_F(Exchange, InACallbackNothingBlocks) {
    const std::string busy = "Send failed - libusb error: -6";
    const std::string gone = "Send failed - Device no longer connected.";
    const std::string not_closed = "Close failed - Device no longer connected.";
    constexpr JovuDeviceAddress kNowhere{9, 9};
    for (const bool sending : {false, true}) {
        std::vector<std::string> seen;
        client.on_debug = [&](JovuDeviceAddress address, const std::string&) {
            for (const JovuDeviceAddress to : {address, kNowhere}) {
                seen.push_back(version(client, to));
                seen.push_back(error_of([&] { client.RequestStatus(to); }));
            }
            EXPECT_TRUE(client.list_connected().size() == 1 && client.list_attached().size() == 1);
            for (const JovuDeviceAddress to : {kNowhere, address, address})
                seen.push_back(error_of([&] { client.close(to); }));
            seen.push_back(error_of([&] { client.RequestStatus(address); }));
        };
        ASSERT_TRUE(client.wait_connected(kAddress, sending ? 2 : 1));
        if (sending) request(client);
        send_event(device);
        EXPECT_THAT(
            seen, testing::ElementsAre("null|" + busy, busy,
                                       "null|Transport Error - Device has been disconnected.", gone,
                                       not_closed, "", not_closed, gone));
        EXPECT_TRUE(client.wait_disconnected(kAddress, sending ? 2 : 1)) << "the watcher closes it";
        EXPECT_EQ(sending ? result() : kNoResponse, kNoResponse);
        replug();
    }
}

TEST_F(Exchange, AHandlerMayEndAnotherClientAtOnce) {
    RecordingClient another;
    client.on_debug = [&](JovuDeviceAddress, const std::string&) { another.shutdown(); };
    send_event(device);
    send_event(device);
    EXPECT_EQ(client.texts().size(), 2U);
    EXPECT_TRUE(another.texts().empty());
}

TEST_F(Exchange, SeveralNotificationsMayEndTheirClient) {
    libusb_device* const second = fake_usb::plug(1, 6);
    ASSERT_TRUE(client.wait_connected({1, 6}));
    std::atomic<int> inside{0}, ended{0};
    client.on_disconnected = [&](JovuDeviceAddress) {
        ++inside;
        eventually([&] { return inside == 2; });
        client.shutdown();
        ++ended;
        EXPECT_TRUE(eventually([&] { return ended == 2; })) << "neither waits for the other";
    };
    fake_usb::unplug(device);
    fake_usb::unplug(second);
    EXPECT_TRUE(eventually([&] { return ended == 2; }));
    client.shutdown();  // The handlers use what is declared here.
}

}  // namespace
}  // namespace test
