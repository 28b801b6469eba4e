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
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/message.h"
#include "core/send_locks.h"
#include "core/waiting_requests.h"
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

TEST(Turns, EndWhenAnotherLockTakesThePlace) {
    const JovuDeviceAddress address{1, 5};
    jovu::SendLocks locks;
    const auto old = locks.connect(address, 1);
    ASSERT_TRUE(old->enter([] { return true; }));
    std::atomic<bool> asked{false};
    auto waiter = std::async(std::launch::async, [&] {
        return old->enter([&] { return asked.exchange(true), locks.find(address) == old; });
    });
    ASSERT_TRUE(test::eventually([&] { return asked.load(); }));
    locks.connect(address, 2);
    EXPECT_EQ(waiter.wait_for(test::kPatience), std::future_status::ready);
    old->leave();
    EXPECT_FALSE(waiter.get());
}

TEST(Turns, PassOnWhenSomebodyGivesUp) {
    jovu::SendLock lock(1);
    std::atomic<bool> wanted{true};
    std::atomic<bool> asked{false};
    ASSERT_TRUE(lock.enter([] { return true; }));
    std::thread gives_up([&] {
        EXPECT_FALSE(lock.enter([&] {
            asked = true;
            return wanted.load();
        }));
    });
    ASSERT_TRUE(test::eventually([&] { return asked.load(); }));
    std::thread waits([&] {
        EXPECT_TRUE(lock.enter([] { return true; }));
        lock.leave();
    });
    wanted = false;
    lock.wake();
    gives_up.join();
    lock.leave();
    waits.join();
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
    const std::pair<std::function<void()>, bool> calls[] = {
        {[&] {
             table.respond(response, {address, 1, ""}, false);
         },
         true},
        {[&] {
             table.respond(late_response, {address, 1, ""}, false);
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
                const jovu::WaitingRequests::Entry one(table, another, unheard, address, 1);
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
