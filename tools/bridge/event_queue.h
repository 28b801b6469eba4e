// SPDX-License-Identifier: Apache-2.0

/// @file
/// Debug messages on their way from the thread that receives to the outbox.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "bridge/device.h"
#include "bridge/outbox.h"
#include "mqtt/topics.h"
#include "posix/mutex.h"

namespace jovu_bridge {

/// Hands debug messages from the thread that receives, which must not wait, to a thread that
/// publishes them. Bounded: what does not fit is counted for its device.
class EventQueue {
public:
    static constexpr std::size_t kMost = 10000;
    static constexpr std::size_t kMostBytes = std::size_t{8} << 20U;

    explicit EventQueue(Outbox& outbox, const jovu_mqtt::Topics& topics);
    ~EventQueue();
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    /// Does not wait.
    void push(const std::shared_ptr<Device>& device, const std::string& text);

private:
    struct Event {
        std::shared_ptr<Device> device;
        std::string text;
        std::chrono::system_clock::time_point time;
    };
    void run();

    Outbox& outbox_;
    const jovu_mqtt::Topics& topics_;
    jovu_cli::Mutex mutex_;
    std::condition_variable_any wake_;
    std::deque<Event> events_ JOVU_GUARDED_BY(mutex_);
    std::size_t bytes_ JOVU_GUARDED_BY(mutex_) = 0;                      ///< Of their texts.
    std::map<std::string, std::uint64_t> lost_ JOVU_GUARDED_BY(mutex_);  ///< By device.
    bool ended_ JOVU_GUARDED_BY(mutex_) = false;
    std::thread thread_;  ///< Last: it uses the members above.
};

}  // namespace jovu_bridge
