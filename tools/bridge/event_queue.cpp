// SPDX-License-Identifier: Apache-2.0
#include "bridge/event_queue.h"

namespace jovu_bridge {

using jovu_cli::MutexLock;

EventQueue::EventQueue(Outbox& outbox, const jovu_mqtt::Topics& topics)
    : outbox_(outbox), topics_(topics), thread_([this] { run(); }) {}

EventQueue::~EventQueue() {
    {
        const MutexLock lock(mutex_);
        ended_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void EventQueue::push(const std::shared_ptr<Device>& device, const std::string& text) {
    {
        const MutexLock lock(mutex_);
        if (events_.size() < kMost && bytes_ + text.size() <= kMostBytes) {
            bytes_ += text.size();
            events_.push_back({device, text, std::chrono::system_clock::now()});
        } else {
            ++lost_[device->name()];
        }
    }
    wake_.notify_one();
}

void EventQueue::run() {
    for (;;) {
        std::deque<Event> events;
        std::map<std::string, std::uint64_t> lost;
        {
            const jovu_cli::MutexLock lock(mutex_);
            while (!ended_ && events_.empty()) {
                wake_.wait(mutex_);
            }
            if (events_.empty()) {
                return;
            }
            events.swap(events_);
            bytes_ = 0;
            lost.swap(lost_);
        }
        for (const Event& event : events) {
            event.device->publish_event(event.text, event.time);
        }
        for (const auto& [name, count] : lost) {
            outbox_.lost_events(topics_.device(name, "event"), count);
        }
    }
}

}  // namespace jovu_bridge
