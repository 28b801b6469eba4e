// SPDX-License-Identifier: Apache-2.0

/// @file
/// One thread for everything that happens at a time.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "posix/mutex.h"

namespace jovu_bridge {

/// Calls functions at their times, on a thread of its own, with no lock held. They must not block
/// and must not throw.
///
/// Threads: any but the destructor.
class Scheduler {
public:
    using Clock = std::chrono::steady_clock;
    using Id = std::uint64_t;

    Scheduler() : thread_([this] { run(); }) {}
    ~Scheduler() {
        {
            const jovu_cli::MutexLock lock(mutex_);
            ended_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /// Calls a function once.
    Id after(Clock::duration delay, std::function<void()> function) {
        return add(Clock::now() + delay, {}, std::move(function));
    }

    /// Calls a function again and again.
    /// @param first the time until the first call, which spreads those of many devices.
    Id every(Clock::duration period, Clock::duration first, std::function<void()> function) {
        return add(Clock::now() + first, period, std::move(function));
    }

    /// Removes a function. Waits for a call of it in progress, except on the scheduler's thread.
    /// @param id of a function that may have been called already; 0 for none.
    void remove(Id id) {
        if (id == 0) {
            return;
        }
        const jovu_cli::MutexLock lock(mutex_);
        for (auto entry = entries_.begin(); entry != entries_.end();) {
            entry = entry->second.id == id ? entries_.erase(entry) : std::next(entry);
        }
        if (running_ == id) {
            removed_running_ = id;
        }
        while (running_ == id && std::this_thread::get_id() != thread_.get_id()) {
            idle_.wait(mutex_);
        }
    }

private:
    struct Entry {
        Id id = 0;
        std::optional<Clock::duration> period;
        std::function<void()> function;
        Clock::time_point due{};  ///< When it is called.
    };

    Id add(Clock::time_point when, std::optional<Clock::duration> period,
           std::function<void()> function) {
        const jovu_cli::MutexLock lock(mutex_);
        const Id id = ++last_id_;
        entries_.emplace(when, Entry{id, period, std::move(function), when});
        wake_.notify_all();
        return id;
    }

    void run() {
        while (std::optional<Entry> entry = next()) {
            entry->function();
            const jovu_cli::MutexLock lock(mutex_);
            running_ = 0;
            if (entry->period && removed_running_ != entry->id) {
                // A period that was missed is left out.
                const Clock::time_point due = entry->due + *entry->period;
                entries_.emplace(std::max(due, Clock::now()), std::move(*entry));
            }
            idle_.notify_all();
        }
    }

    /// Waits for the next function. @return nothing at the end.
    std::optional<Entry> next() {
        const jovu_cli::MutexLock lock(mutex_);
        while (!ended_) {
            if (entries_.empty()) {
                wake_.wait(mutex_);
                continue;
            }
            const Clock::time_point due = entries_.begin()->first;
            if (Clock::now() < due) {
                wake_.wait_until(mutex_, due);
                continue;
            }
            Entry entry = std::move(entries_.begin()->second);
            entry.due = due;
            entries_.erase(entries_.begin());
            running_ = entry.id;
            removed_running_ = 0;
            return entry;
        }
        return std::nullopt;
    }

    jovu_cli::Mutex mutex_;
    std::condition_variable_any wake_;
    std::condition_variable_any idle_;
    std::multimap<Clock::time_point, Entry> entries_ JOVU_GUARDED_BY(mutex_);
    Id last_id_ JOVU_GUARDED_BY(mutex_) = 0;
    Id running_ JOVU_GUARDED_BY(mutex_) = 0;
    Id removed_running_ JOVU_GUARDED_BY(mutex_) = 0;
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
    std::thread thread_;  ///< Last: it uses the members above.
};

}  // namespace jovu_bridge
