/// @file
/// What threads share: whose turn it is, who waits for an answer, when holds end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/message.h"
#include "core/notice_threads.h"
#include "core/send_locks.h"
#include "core/waiting_requests.h"
#include "json/json.h"
#include "support/recording_client.h"
#include "support/wait.h"
#include "usb/device_gate.h"
#include "usb/scan_holds.h"

namespace {

bool sleeps(pid_t task) {
    std::ifstream file("/proc/self/task/" + std::to_string(task) + "/stat");
    const std::string stat(std::istreambuf_iterator<char>(file), {});
    return stat.find(") S ") != std::string::npos;
}

/// Lets go of a thing that three others wait for, and wants it again at once.
/// @return who has had it by then, in order.
template <class Take, class Leave>
std::vector<int> turns_before_mine(Take take, Leave leave) {
    std::vector<int> turns;
    std::vector<std::thread> others;
    take();
    for (int i = 1; i <= 3; ++i) {
        std::atomic<pid_t> task{0};
        others.emplace_back([&, i] {
            task = gettid();
            take();
            turns.push_back(i);
            leave();
        });
        EXPECT_TRUE(test::eventually([&] { return task != 0 && sleeps(task); }));
    }
    leave();
    take();
    const std::vector<int> before_mine = turns;
    leave();
    for (std::thread& other : others)
        other.join();
    return before_mine;
}

TEST(Turns, GoToWhoHasWaitedLongest) {
    jovu::SendLock lock(1);
    EXPECT_THAT(turns_before_mine([&] { EXPECT_TRUE(lock.enter([] { return true; })); },
                                  [&] { lock.leave(); }),
                testing::ElementsAre(1, 2, 3));
    jovu::DeviceGate gate;
    EXPECT_THAT(turns_before_mine([&]() JOVU_NO_THREAD_SAFETY_ANALYSIS { gate.lock(); },
                                  [&]() JOVU_NO_THREAD_SAFETY_ANALYSIS { gate.unlock(); }),
                testing::ElementsAre(1, 2, 3));
}

TEST(Turns, EndWhenTheirLockIsTakenOut) {
    const JovuDeviceAddress address{1, 5};
    const std::function<void(jovu::SendLocks&)> ways[] = {
        [&](auto& locks) { locks.connect(address, 2); },
        [&](auto& locks) { locks.disconnect(address); }, [](auto& locks) { locks.close(); }};
    for (const auto& take_out : ways) {
        jovu::SendLocks locks;
        const auto old = locks.connect(address, 1);
        ASSERT_TRUE(old->enter([] { return true; }));
        std::atomic<bool> asked{false};
        auto waiter = std::async(std::launch::async, [&] {
            return old->enter([&] { return asked.exchange(true), locks.find(address) == old; });
        });
        ASSERT_TRUE(test::eventually([&] { return asked.load(); }));
        take_out(locks);
        EXPECT_EQ(waiter.wait_for(test::kPatience), std::future_status::ready) << "before leave()";
        old->leave();
        EXPECT_FALSE(waiter.get());
    }
}

TEST(Turns, PassOnWhenSomebodyGivesUp) {
    // Often: who waits behind may look at the queue before the one in front has left it.
    for (int round = 0; round < 300; ++round) {
        jovu::SendLock lock(1);
        std::atomic<bool> wanted{true};
        std::atomic<int> asked{0};
        ASSERT_TRUE(lock.enter([] { return true; }));
        std::thread gives_up(
            [&] { EXPECT_FALSE(lock.enter([&] { return ++asked, wanted.load(); })); });
        ASSERT_TRUE(test::eventually([&] { return asked == 1; }));
        std::thread waits([&] {
            EXPECT_TRUE(lock.enter([&] { return ++asked, true; }));
            lock.leave();
        });
        ASSERT_TRUE(test::eventually([&] { return asked == 2; }));
        wanted = false;
        lock.leave();
        gives_up.join();
        waits.join();
    }
}

TEST(NoticeThreads, DropWhatHasNotBegunWhenTheyAreClosed) {
    for (int round = 0; round < 100; ++round) {
        const auto ended = std::make_shared<std::atomic<bool>>(false);
        jovu::NoticeThreads threads;
        threads.post([ended] { EXPECT_FALSE(*ended); });
        threads.close();
        threads.wait();
        *ended = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

TEST(WaitingRequests, OutliveOlderOnesWithTheirId) {
    const JovuDeviceAddress address{1, 5};
    test::RecordingClient client;
    jovu::WaitingRequests table;
    JovuMessage older(client, 0, 7, nullptr), newer(client, 0, 7, nullptr);
    jovu::ResponseSignal unheard, signal;
    std::optional<jovu::WaitingRequests::Entry> first, second;
    first.emplace(table, older, unheard, address, 1);
    second.emplace(table, newer, signal, address, 1);
    first.reset();
    const jovu::JsonTree body = jovu::parse_json("{}");
    auto response = std::make_shared<JovuMessage>(client, 2, 7, body.get());
    table.respond(response, {address, 1, ""}, false);
    EXPECT_TRUE(signal.wait(std::chrono::milliseconds(0)));
    EXPECT_TRUE(newer.response_available() && !older.response_available());
    EXPECT_FALSE(response->is_parsed()) << "its tree is freed now";
    second.reset();
    table.wake_all();
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
}

TEST(WaitingRequests, ComeAndGoWhileOthersAreAnsweredAndWoken) {
    test::RecordingClient client;
    jovu::WaitingRequests table;
    const JovuDeviceAddress address{1, 5};
    JovuMessage request(client, 0, nullptr);
    auto response = std::make_shared<JovuMessage>(client, 0, request.id(), nullptr);
    auto late_response = std::make_shared<JovuMessage>(client, 0, nullptr);
    jovu::ResponseSignal signal;
    const jovu::WaitingRequests::Entry entry(table, request, signal, address, 1);
    table.wake({1, 6});
    table.respond(late_response, {address, 1, ""}, false);
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
    constexpr int kTimes = 3000;
    JovuMessage another(client, 0, nullptr);
    // Nothing orders the two threads but the table.
    std::thread other([&] {
        for (int i = 0; i < kTimes; ++i) {
            jovu::ResponseSignal unheard;
            const jovu::WaitingRequests::Entry one(table, another, unheard, address, 1);
        }
    });
    for (int i = 0; i < kTimes; ++i) {
        table.respond(response, {address, 1, ""}, false);
        table.wake(address);
        table.wake_all();
    }
    other.join();
    for (int i = 0; i < 3 * kTimes; ++i)
        EXPECT_TRUE(signal.wait(std::chrono::milliseconds(0)));
    EXPECT_FALSE(signal.wait(std::chrono::milliseconds(0)));
}

TEST(ScanHolds, EndTogether) {
    jovu::ScanHolds holds;
    holds.take();
    holds.take();
    holds.release();
    EXPECT_TRUE(holds.now().held);
    EXPECT_EQ(holds.now().ended, 0U);
    holds.release();
    EXPECT_FALSE(holds.now().held);
    EXPECT_EQ(holds.now().ended, 1U);

    // Never seen released before it counts as ended.
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) {
            holds.take();
            holds.release();
        }
    });
    jovu::ScanHolds::State last = holds.now();
    for (int i = 0; i < 100000; ++i) {
        const jovu::ScanHolds::State next = holds.now();
        EXPECT_TRUE(next.ended > last.ended ||
                    (next.ended == last.ended && next.held >= last.held));
        last = next;
    }
    stop = true;
    other.join();
}

}  // namespace
