#include "inbox.h"

#include <algorithm>
#include <utility>

namespace jovu_cli {
namespace {

constexpr std::size_t max_waiting = 20'000;
constexpr std::size_t max_waiting_bytes = 16U << 20U;

std::size_t text_size(const Notice& notice) {
    const auto* text = std::get_if<DebugText>(&notice.what);
    return text != nullptr && *text ? (*text)->size() : 0;
}

bool is_link_notice(const Notice& notice) {
    return std::holds_alternative<Connected>(notice.what) ||
           std::holds_alternative<Disconnected>(notice.what);
}

}  // namespace

Inbox::Inbox(StopSource& stop, Interest interest)
    : stop_(stop), interest_(interest), wake_(stop, [this](Stop) {
          // The state changed without the lock; taking it keeps the wake-up from falling between
          // a waiter's check and its wait.
          { const std::lock_guard<std::mutex> lock(mutex_); }
          changed_.notify_all();
      }) {}

void Inbox::post(Notice notice) {
    if (!wanted(notice)) {
        return;
    }
    const std::size_t size = text_size(notice);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const bool full =
            waiting_.size() >= max_waiting || waiting_bytes_ + size > max_waiting_bytes;
        if (full && !is_link_notice(notice)) {
            ++lost_;
            return;
        }
        waiting_bytes_ += size;
        waiting_.push_back(std::move(notice));
    }
    changed_.notify_one();
}

std::optional<Notice> Inbox::next(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto stopped = [this] { return stop_.state() != Stop::none; };
    const bool ready =
        changed_.wait_until(lock, deadline, [&] { return stopped() || !waiting_.empty(); });
    if (!ready || stopped()) {
        return std::nullopt;
    }
    return take();
}

std::optional<Notice> Inbox::poll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (waiting_.empty()) {
        return std::nullopt;
    }
    return take();
}

void Inbox::drop_reports() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto is_report = [](const Notice& notice) {
        return std::holds_alternative<StatusReport>(notice.what);
    };
    waiting_.erase(std::remove_if(waiting_.begin(), waiting_.end(), is_report), waiting_.end());
}

std::size_t Inbox::take_lost() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lost_, 0);
}

bool Inbox::wanted(const Notice& notice) const {
    if (std::holds_alternative<StatusReport>(notice.what)) {
        return interest_.reports;
    }
    return is_link_notice(notice) || interest_.events;
}

std::optional<Notice> Inbox::take() {
    Notice notice = std::move(waiting_.front());
    waiting_.pop_front();
    waiting_bytes_ -= text_size(notice);
    return notice;
}

}  // namespace jovu_cli
