// SPDX-License-Identifier: Apache-2.0

/// @file
/// A thread that carries out tasks one after the other.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>
#include <utility>

#include "posix/mutex.h"

namespace jovu_bridge {

/// Threads: any but the destructor and end(), which wait for the lane's own thread. Tasks must not
/// throw. The callers limit how many tasks wait.
class Lane {
public:
    Lane() : thread_([this] { run(); }) {}
    ~Lane() { end(); }
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    /// Adds a task.
    /// @param first before the tasks that wait.
    /// @return false after end(): the task is dropped.
    bool post(std::function<void()> task, bool first = false) {
        {
            const jovu_cli::MutexLock lock(mutex_);
            if (ended_) {
                return false;
            }
            if (first) {
                tasks_.push_front(std::move(task));
            } else {
                tasks_.push_back(std::move(task));
            }
        }
        wake_.notify_one();
        return true;
    }

    /// Carries out the tasks that wait, and ends the thread.
    void end() {
        {
            const jovu_cli::MutexLock lock(mutex_);
            ended_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    void run() {
        for (;;) {
            std::function<void()> task;
            {
                const jovu_cli::MutexLock lock(mutex_);
                while (!ended_ && tasks_.empty()) {
                    wake_.wait(mutex_);
                }
                if (tasks_.empty()) {
                    return;
                }
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }

    jovu_cli::Mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<std::function<void()>> tasks_ JOVU_GUARDED_BY(mutex_);
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
    std::thread thread_;  ///< Last: it uses the members above.
};

}  // namespace jovu_bridge
