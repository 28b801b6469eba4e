// SPDX-License-Identifier: Apache-2.0
#include "session/notification_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include "session/device_names.h"

#include <cerrno>
#include <system_error>
#include <utility>

namespace jovu_cli {
namespace {

/// The limits of a queue; docs/jovu.md names the first.
constexpr std::size_t kMaxQueued = 20'000;
constexpr std::size_t kMaxQueuedBytes = 16U << 20U;

/// Bytes of the strings in a notification.
std::size_t string_size(const Notification& notification) {
    if (const auto* message = std::get_if<DebugMessage>(&notification.what)) {
        return *message ? (*message)->size() : 0;
    }
    if (const auto* report = std::get_if<StatusReport>(&notification.what)) {
        const auto& printer = report->printer;
        return printer.model_name.size() + printer.cpu_id.size() + printer.firmware_name.size() +
               printer.firmware_version.size() + report->state.size() + report->build_plate.size() +
               report->filament.size() + report->job_id.size() + report->file.size();
    }
    return 0;
}

bool is_connection_change(const Notification& notification) {
    return std::holds_alternative<Connected>(notification.what) ||
           std::holds_alternative<Disconnected>(notification.what);
}

template <class What>
Notification notify(JovuDeviceAddress address, What what) {
    return Notification{address, std::chrono::system_clock::now(), std::move(what)};
}

}  // namespace

/// @return whether no notification was lost.
bool NotificationQueue::Queue::put(Notification&& notification) {
    const std::size_t size = string_size(notification);
    const bool full = entries.size() >= kMaxQueued || bytes + size > kMaxQueuedBytes;
    if (full && !is_connection_change(notification)) {
        return false;
    }
    if (full) {
        take();  // A command must receive the disconnect of its device.
    }
    bytes += size;
    entries.push_back(std::move(notification));
    return !full;
}

std::optional<Notification> NotificationQueue::Queue::take() {
    if (entries.empty()) {
        return std::nullopt;
    }
    Notification notification = std::move(entries.front());
    entries.pop_front();
    bytes -= string_size(notification);
    return notification;
}

NotificationQueue::NotificationQueue(StopSource& stop, Interest interest)
    : stop_(stop),
      interest_(interest),
      event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      side_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wake_(stop, [this](Stop) {
          // The state changed without the mutex. Locking it keeps the wake-up from falling between
          // a waiter's check and its wait.
          { const MutexLock lock(mutex_); }
          changed_.notify_all();
      }) {
    if (!event_.valid() || !side_event_.valid()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void NotificationQueue::begin(Interest interest) {
    const MutexLock lock(mutex_);
    interest_ = interest;
    queue_ = {};
    lost_ = 0;
}

void NotificationQueue::fill_side_queue(bool events) {
    const MutexLock lock(mutex_);
    side_takes_connections_ = true;
    side_takes_events_ = events;
}

void NotificationQueue::post(Notification notification) {
    ++posted_;
    {
        const MutexLock lock(mutex_);
        if (is_connection_change(notification)) {
            connections_[notification.address] +=
                std::holds_alternative<Connected>(notification.what) ? 1 : -1;
            ++changes_[notification.address];
            if (side_takes_connections_) {
                put_into_side_queue(Notification(notification));
            }
        } else if (is_for_side_queue(notification)) {
            put_into_side_queue(std::move(notification));
            return;
        }
        if (!is_wanted(notification)) {
            return;
        }
        if (queue_.entries.empty()) {
            const std::uint64_t one = 1;
            (void)!write(event_.get(), &one, sizeof one);
        }
        if (!queue_.put(std::move(notification))) {
            ++lost_;
        }
    }
    changed_.notify_one();
}

void NotificationQueue::put_into_side_queue(Notification&& notification) {
    if (!side_queue_.put(std::move(notification))) {
        ++lost_from_side_queue_;
    }
    const std::uint64_t one = 1;
    (void)!write(side_event_.get(), &one, sizeof one);
}

std::optional<Notification> NotificationQueue::next(Clock::time_point deadline) {
    const MutexLock lock(mutex_);
    const auto stopped = [this] { return stop_.state() != Stop::none; };
    while (!stopped() && queue_.entries.empty()) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
            break;
        }
    }
    return stopped() ? std::nullopt : queue_.take();
}

std::optional<Notification> NotificationQueue::poll() {
    const MutexLock lock(mutex_);
    std::optional<Notification> notification = queue_.take();
    if (queue_.entries.empty()) {
        std::uint64_t count = 0;
        (void)!read(event_.get(), &count, sizeof count);
    }
    return notification;
}

std::optional<Notification> NotificationQueue::poll_side_queue() {
    const MutexLock lock(mutex_);
    std::optional<Notification> notification = side_queue_.take();
    if (side_queue_.entries.empty()) {
        std::uint64_t count = 0;
        (void)!read(side_event_.get(), &count, sizeof count);
    }
    return notification;
}

std::size_t NotificationQueue::take_lost_from_side_queue() {
    const MutexLock lock(mutex_);
    return std::exchange(lost_from_side_queue_, 0);
}

std::vector<JovuDeviceAddress> NotificationQueue::connected() {
    const MutexLock lock(mutex_);
    std::vector<JovuDeviceAddress> addresses;
    for (const auto& [address, count] : connections_) {
        if (count > 0) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

void NotificationQueue::clear_devices() {
    const MutexLock lock(mutex_);
    queue_ = {};
    connections_.clear();
}

std::uint64_t NotificationQueue::changes(JovuDeviceAddress address) {
    const MutexLock lock(mutex_);
    const auto found = changes_.find(address);
    return found == changes_.end() ? 0 : found->second;
}

void NotificationQueue::drop_reports() {
    const MutexLock lock(mutex_);
    for (Queue others = std::exchange(queue_, {});
         std::optional<Notification> notification = others.take();) {
        if (!std::holds_alternative<StatusReport>(notification->what)) {
            queue_.put(std::move(*notification));
        }
    }
}

std::size_t NotificationQueue::take_lost() {
    const MutexLock lock(mutex_);
    return std::exchange(lost_, 0);
}

bool NotificationQueue::is_wanted(const Notification& notification) const {
    if (std::holds_alternative<StatusReport>(notification.what)) {
        return interest_.reports;
    }
    return is_connection_change(notification) || interest_.events;
}

bool NotificationQueue::is_for_side_queue(const Notification& notification) const {
    const bool is_report = std::holds_alternative<StatusReport>(notification.what);
    return side_takes_events_ && !is_report && !interest_.events;
}

Client::Client(NotificationQueue& notifications, const JovuScanPause& /*until_constructed*/)
    : notifications_(notifications) {
    set_strict_matching(true);
}

Client::~Client() {
    shutdown();
}

void Client::device_connected(JovuDeviceAddress address) {
    remember_device(address);
    notifications_.post(notify(address, Connected{}));
}

void Client::device_disconnected(JovuDeviceAddress address) {
    notifications_.post(notify(address, Disconnected{}));
}

void Client::debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) {
    notifications_.post(notify(address, text ? DebugMessage(text.get()) : std::nullopt));
}

void Client::servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) {
    notifications_.post(notify(address, sample));
}

void Client::StatusReceived(JovuDeviceAddress address, StatusMsg status) {
    notifications_.post(notify(address, std::move(status)));
}

}  // namespace jovu_cli
