/// @file
/// Whose turn it is.
#include "base/fair_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/wait.h"

namespace {

bool sleeps(pid_t task) {
    std::ifstream file("/proc/self/task/" + std::to_string(task) + "/stat");
    const std::string stat(std::istreambuf_iterator<char>(file), {});
    return stat.find(") S ") != std::string::npos;
}

TEST(FairLock, GoesToTheThreadThatHasWaitedLongest) {
    jovu::FairLock lock;
    std::vector<int> turns;
    std::vector<std::thread> others;
    lock.lock();
    for (int i = 1; i <= 3; ++i) {
        std::atomic<pid_t> task{0};
        others.emplace_back([&, i] {
            task = gettid();
            lock.lock();
            turns.push_back(i);
            lock.unlock();
        });
        ASSERT_TRUE(test::eventually([&] { return task != 0 && sleeps(task); }));
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
    jovu::FairLock lock;
    std::atomic<bool> wanted{true};
    std::atomic<int> evaluated{0};
    lock.lock();
    auto gives_up = std::async(std::launch::async, [&] {
        return lock.lock_while([&] { return ++evaluated, wanted.load(); });
    });
    ASSERT_TRUE(test::eventually([&] { return evaluated > 0; }));
    std::thread waits([&] {
        lock.lock();
        lock.unlock();
    });
    wanted = false;
    lock.wake();
    EXPECT_EQ(gives_up.wait_for(test::kPatience), std::future_status::ready);
    EXPECT_FALSE(gives_up.get());
    auto free = std::async(std::launch::async, [&] { lock.wait_until_free(); });
    EXPECT_EQ(free.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
    lock.unlock();
    waits.join();
    EXPECT_EQ(free.wait_for(test::kPatience), std::future_status::ready);
}

}  // namespace
