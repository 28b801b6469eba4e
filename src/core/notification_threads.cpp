// SPDX-License-Identifier: Apache-2.0
#include "core/notification_threads.h"

#include <exception>
#include <thread>
#include <utility>

namespace jovu {
namespace {

/// The owner of the notification that this thread runs; null on every other thread.
thread_local const void* current_owner = nullptr;
/// Whether that notification has called wait().
thread_local bool current_is_ending = false;

}  // namespace

NotificationThreads::NotificationThreads() : state_(std::make_shared<State>()) {}

void NotificationThreads::post(Prepared notification) {
    {
        const MutexLock lock(state_->mutex);
        if (state_->closed) return;
        state_->pending.splice(state_->pending.end(), notification.one_);
    }
    try {
        std::thread([state = state_] { run(*state); }).detach();
    } catch (const std::exception&) {
        // No thread can be started now. The notification is in the queue, which every later thread
        // empties.
        return;
    }
}

NotificationThreads::Notification NotificationThreads::State::begin_next() {
    const MutexLock lock(mutex);
    if (pending.empty()) return nullptr;
    Notification notification = std::move(pending.front());
    pending.pop_front();
    ++running;
    return notification;
}

void NotificationThreads::State::end() {
    const MutexLock lock(mutex);
    --running;
    if (std::exchange(current_is_ending, false)) --ending;
    changed.notify_all();
}

void NotificationThreads::run(State& state) noexcept {
    current_owner = &state;
    while (Notification notification = state.begin_next()) {
        notification();
        // Destroy the captures before waking threads in wait().
        notification = nullptr;
        state.end();
    }
}

void NotificationThreads::close() {
    std::list<Notification> dropped;
    const MutexLock lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->pending);
}

void NotificationThreads::wait() {
    State& state = *state_;
    const bool in_notification = current_owner == &state;
    const MutexLock lock(state.mutex);
    if (!in_notification) {
        while (state.running > 0)
            state.changed.wait(state.mutex);
        return;
    }
    if (!std::exchange(current_is_ending, true)) {
        ++state.ending;
        state.changed.notify_all();
    }
    while (state.running > state.ending)
        state.changed.wait(state.mutex);
}

}  // namespace jovu
