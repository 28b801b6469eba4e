#include "core/waiting_requests.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "core/message.h"
#include "json/json.h"
#include "support/recording_client.h"

namespace {

/// A connection without a device.
struct NoDevice : jovu::Connection {
    explicit NoDevice(JovuDeviceAddress at = {1, 5}) : Connection(at) {}
    void write(std::initializer_list<Piece> /*pieces*/, std::uint32_t /*interface*/) override {}
};

TEST(WaitingRequests, OutliveOlderOnesWithTheirId) {
    const NoDevice connection;
    test::RecordingClient client;
    jovu::WaitingRequests table;
    JovuMessage older(client, 0, 7, nullptr), newer(client, 0, 7, nullptr);
    jovu::ResponseSignal unheard, signal;
    std::optional<jovu::WaitingRequests::Entry> first, second;
    first.emplace(table, older, unheard, connection);
    second.emplace(table, newer, signal, connection);
    first.reset();
    const jovu::JsonTree body = jovu::parse_json("{}");
    auto response = std::make_shared<JovuMessage>(client, 2, 7, body.get());
    table.respond(response, {connection.address(), &connection, ""}, false);
    EXPECT_TRUE(signal.wait(std::chrono::milliseconds(0)));
    EXPECT_TRUE(newer.response_available() && !older.response_available());
    EXPECT_FALSE(response->is_parsed()) << "its tree is freed now";
    second.reset();
    table.wake_all();
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
}

TEST(WaitingRequests, ComeAndGoWhileOthersReceiveResponsesAndAreWoken) {
    test::RecordingClient client;
    jovu::WaitingRequests table;
    const NoDevice connection;
    JovuMessage request(client, 0, nullptr);
    auto response = std::make_shared<JovuMessage>(client, 0, request.id(), nullptr);
    auto late_response = std::make_shared<JovuMessage>(client, 0, nullptr);
    jovu::ResponseSignal signal;
    const jovu::WaitingRequests::Entry entry(table, request, signal, connection);
    table.wake({1, 6});
    table.respond(late_response, {connection.address(), &connection, ""}, false);
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
    constexpr int kTimes = 3000;
    JovuMessage another(client, 0, nullptr);
    // Nothing orders the two threads but the table.
    std::thread other([&] {
        for (int i = 0; i < kTimes; ++i) {
            jovu::ResponseSignal unheard;
            const jovu::WaitingRequests::Entry one(table, another, unheard, connection);
        }
    });
    for (int i = 0; i < kTimes; ++i) {
        table.respond(response, {connection.address(), &connection, ""}, false);
        table.wake(connection.address());
        table.wake_all();
    }
    other.join();
    for (int i = 0; i < 3 * kTimes; ++i)
        EXPECT_TRUE(signal.wait(std::chrono::milliseconds(0)));
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
}

}  // namespace
