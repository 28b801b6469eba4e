#include "core/waiting_requests.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <utility>

#include "core/message.h"
#include "support/recording_client.h"

namespace {

TEST(WaitingRequests, ComeAndGoWhileOthersAreAnsweredAndWoken) {
    test::RecordingClient client;
    jovu::WaitingRequests table;
    const JovuDeviceAddress address{1, 5};
    struct NoDevice : jovu::Connection {
        explicit NoDevice(JovuDeviceAddress at) : Connection(at) {}
        void write(std::initializer_list<Piece>, std::uint32_t) override {}
    } const connection(address);
    JovuMessage request(client, 0, nullptr);
    auto response = std::make_shared<JovuMessage>(client, 0, request.id(), nullptr);
    auto late_response = std::make_shared<JovuMessage>(client, 0, nullptr);
    jovu::ResponseSignal signal;
    const jovu::WaitingRequests::Entry entry(table, request, signal, connection);
    const std::pair<std::function<void()>, bool> calls[] = {
        {[&] {
             table.respond(response, {address, &connection, ""}, false);
         },
         true},
        {[&] {
             table.respond(late_response, {address, &connection, ""}, false);
         },
         false},
        {[&] { table.wake(address); }, true},
        {[&] {
             table.wake({1, 6});
         },
         false},
        {[&] { table.wake_all(); }, true},
    };
    for (const auto& [call, wakes] : calls) {
        constexpr int kTimes = 3000;
        JovuMessage another(client, 0, nullptr);
        // Nothing orders the two threads but the table.
        std::thread other([&] {
            for (int i = 0; i < kTimes; ++i) {
                jovu::ResponseSignal unheard;
                const jovu::WaitingRequests::Entry one(table, another, unheard, connection);
            }
        });
        for (int i = 0; i < kTimes; ++i)
            call();
        other.join();
        for (int i = 0; wakes && i < kTimes; ++i)
            EXPECT_TRUE(signal.wait(std::chrono::milliseconds(0)));
        EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
    }
}

}  // namespace
