// SPDX-License-Identifier: Apache-2.0
#include "notifications.h"

#include <utility>

namespace jovu_python {

void NotificationQueue::push(Notification notification) {
    const auto* const string = std::get_if<std::string>(&notification.value);
    const std::size_t bytes = string == nullptr ? 0 : string->size();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    if (waiting_.size() >= kMostNotifications || bytes > kMostBytes - bytes_) {
        ++lost_;
        return;
    }
    waiting_.push_back(std::move(notification));
    bytes_ += bytes;
    changed_.notify_one();
}

std::vector<Notification> NotificationQueue::take() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !waiting_.empty(); });
    bytes_ = 0;
    return std::exchange(waiting_, {});
}

void NotificationQueue::close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

std::uint64_t NotificationQueue::lost() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
}

}  // namespace jovu_python
