#include "core/notice_threads.h"

#include <exception>
#include <thread>
#include <utility>

namespace jovu {
namespace {

/// The owner of the notice that this thread is in; null on every other thread.
thread_local const void* current_owner = nullptr;

}  // namespace

NoticeThreads::NoticeThreads() : state_(std::make_shared<State>()) {}

void NoticeThreads::post(Prepared notice) {
    {
        const MutexLock lock(state_->mutex);
        if (state_->closed) return;
        state_->pending.splice(state_->pending.end(), notice.one_);
    }
    try {
        std::thread([state = state_] { run(*state); }).detach();
    } catch (const std::exception&) {
        // No thread to be had now, or no memory for one. The notice is in the queue, which every
        // later thread empties.
        return;
    }
}

NoticeThreads::Notice NoticeThreads::State::begin_next() {
    const MutexLock lock(mutex);
    if (pending.empty()) return nullptr;
    Notice notice = std::move(pending.front());
    pending.pop_front();
    ++running;
    return notice;
}

void NoticeThreads::State::end() {
    const MutexLock lock(mutex);
    --running;
    changed.notify_all();
}

void NoticeThreads::run(State& state) noexcept {
    current_owner = &state;
    while (Notice notice = state.begin_next()) {
        notice();
        // What the notice holds goes before anybody who waits for its end goes on.
        notice = nullptr;
        state.end();
    }
}

void NoticeThreads::close() {
    std::list<Notice> dropped;
    const MutexLock lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->pending);
}

void NoticeThreads::wait() {
    State& state = *state_;
    const bool in_notice = current_owner == &state;
    const MutexLock lock(state.mutex);
    if (!in_notice) {
        while (state.running > 0)
            state.changed.wait(state.mutex);
        return;
    }
    // Notices that wait here do not wait for one another.
    ++state.waiting;
    while (state.running > state.waiting)
        state.changed.wait(state.mutex);
    --state.waiting;
}

}  // namespace jovu
