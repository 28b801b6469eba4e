// SPDX-License-Identifier: Apache-2.0

/// @file
/// Whose turn it is, and which notifications run.
#include "base/fair_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "core/notification_threads.h"
#include "support/wait.h"

namespace {

TEST(FairLock, GoesToTheThreadThatHasWaitedLongest) {
    jovu::FairLock lock;
    std::vector<unsigned> turns;
    std::vector<std::thread> others;
    std::atomic<unsigned> waiting{0};  ///< A bit for each.
    lock.lock();
    for (unsigned i = 1; i <= 3; ++i) {
        others.emplace_back([&, i] {
            lock.lock_while([&] { return (waiting |= 1U << i) != 0; });
            turns.push_back(i);
            lock.unlock();
        });
        ASSERT_TRUE(test::eventually([&] { return (waiting & 1U << i) != 0; }));
    }
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
    lock.lock();  // At once, and so behind the others.
    EXPECT_THAT(turns, testing::ElementsAre(1, 2, 3));
    lock.unlock();
    for (std::thread& other : others)
        other.join();
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(FairLock, PassesOnWhenAWaitingThreadGivesUp) {
    // Often: who waits behind may look at the queue before the one in front has left it.
    for (int round = 0; round < 300; ++round) {
        jovu::FairLock lock;
        std::atomic<bool> wanted{true};
        std::atomic<int> asked{0};
        lock.lock();
        std::thread gives_up(
            [&] { EXPECT_FALSE(lock.lock_while([&] { return ++asked, wanted.load(); })); });
        ASSERT_TRUE(test::eventually([&] { return asked == 1; }));
        std::thread waits([&] {
            EXPECT_TRUE(lock.lock_while([&] { return ++asked, true; }));
            lock.unlock();
        });
        ASSERT_TRUE(test::eventually([&] { return asked == 2; }));
        wanted = false;
        if (round % 2 == 0) {
            lock.wake();
            gives_up.join();
            lock.unlock();
        } else {
            lock.unlock();
            gives_up.join();
        }
        waits.join();
        lock.wait_until_free();
    }
}

TEST(NotificationThreads, DropWhatHasNotBegunWhenTheyAreClosed) {
    for (int round = 0; round < 100; ++round) {
        const auto ended = std::make_shared<std::atomic<bool>>(false);
        jovu::NotificationThreads threads;
        threads.post([ended] { EXPECT_FALSE(*ended); });
        threads.close();
        threads.post([] { ADD_FAILURE() << "posted after close()"; });
        threads.wait();
        *ended = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace
