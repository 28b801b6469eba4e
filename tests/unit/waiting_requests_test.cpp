// SPDX-License-Identifier: Apache-2.0
#include "core/waiting_requests.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "core/message.h"
#include "json/json_tree.h"
#include "support/recording_client.h"

namespace {

/// A connection without a device.
struct NoDevice : jovu::Connection {
    NoDevice() : Connection({1, 5}) {}
    void write(std::initializer_list<Piece> /*pieces*/, std::uint32_t /*interface*/,
               Follow /*follow*/) override {}
};

TEST(WaitingRequests, AreWokenByWhatIsTheirsWhileOthersComeAndGo) {
    using Entry = jovu::WaitingRequests::Entry;
    test::RecordingClient client;
    const NoDevice connection;
    const jovu::JsonTree body("{}");
    jovu::WaitingRequests table;
    const auto respond = [&](unsigned id) {
        auto response = std::make_shared<JovuMessage>(client, 2, id, body.get());
        table.respond(response, {connection.address(), &connection, ""}, false);
        return response;
    };
    jovu::ResponseSignal signal, unheard;
    const auto woken = [&signal] { return signal.wait(std::chrono::milliseconds(0)); };
    JovuMessage older(client, 0, 7, nullptr), request(client, 0, 7, nullptr);
    jovu::CancellableExchanges exchanges;
    jovu::CancellableExchanges::Ticket ticket(exchanges);
    std::optional<Entry> first(std::in_place, table, older, unheard, connection, ticket);
    std::optional<Entry> second(std::in_place, table, request, signal, connection, ticket);
    first.reset();
    table.wake({1, 6});
    respond(8);
    EXPECT_FALSE(woken());
    EXPECT_FALSE(respond(7)->is_parsed()) << "its tree is freed now";
    EXPECT_TRUE(woken() && request.response_available() && !older.response_available());

    constexpr int kTimes = 3000;
    JovuMessage another(client, 0, 9, nullptr);
    // Nothing orders the two threads but the table.
    std::thread other([&] {
        for (int i = 0; i < kTimes; ++i)
            const Entry one(table, another, unheard, connection, ticket);
    });
    for (int i = 0; i < kTimes; ++i) {
        respond(7);
        table.wake(connection.address());
        table.wake_all();
    }
    other.join();
    for (int i = 0; i < 3 * kTimes; ++i)
        EXPECT_TRUE(woken());
    second.reset();
    table.wake_all();
    EXPECT_FALSE(woken());

    jovu::CancellableExchanges::Ticket cancelled(exchanges);
    const Entry third(table, another, signal, connection, cancelled);
    table.wake_cancelled();
    EXPECT_FALSE(woken());
    EXPECT_EQ(exchanges.cancel_all(), 1U) << "the first ticket's exchange has its response";
    respond(9);
    EXPECT_FALSE(woken() || another.response_available());
    table.wake_cancelled();
    EXPECT_TRUE(woken());
}

}  // namespace
