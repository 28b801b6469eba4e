#include "inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace jovu_cli {
namespace {

constexpr std::size_t max_waiting = 20'000;
constexpr std::size_t max_waiting_bytes = 16U << 20U;

/// Bytes of text that a notice keeps beside itself.
std::size_t text_size(const Notice& notice) {
    if (const auto* text = std::get_if<DebugText>(&notice.what)) {
        return *text ? (*text)->size() : 0;
    }
    if (const auto* report = std::get_if<StatusReport>(&notice.what)) {
        const auto& printer = report->printer;
        return printer.model_name.size() + printer.cpu_id.size() + printer.firmware_name.size() +
               printer.firmware_version.size() + report->state.size() + report->build_plate.size() +
               report->filament.size() + report->job_id.size() + report->file.size();
    }
    return 0;
}

bool is_link_notice(const Notice& notice) {
    return std::holds_alternative<Connected>(notice.what) ||
           std::holds_alternative<Disconnected>(notice.what);
}

}  // namespace

/// @return whether none was lost.
bool Inbox::Queue::put(Notice&& notice) {
    const std::size_t size = text_size(notice);
    const bool full = notices.size() >= max_waiting || bytes + size > max_waiting_bytes;
    if (full && !is_link_notice(notice)) {
        return false;
    }
    if (full) {
        take();  // A command has to learn that its device is gone: the oldest makes room.
    }
    bytes += size;
    notices.push_back(std::move(notice));
    return !full;
}

std::optional<Notice> Inbox::Queue::take() {
    if (notices.empty()) {
        return std::nullopt;
    }
    Notice notice = std::move(notices.front());
    notices.pop_front();
    bytes -= text_size(notice);
    return notice;
}

Inbox::Inbox(StopSource& stop, Interest interest)
    : stop_(stop),
      interest_(interest),
      aside_event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      wake_(stop, [this](Stop) {
          // The state changed without the lock; taking it keeps the wake-up from falling between
          // a waiter's check and its wait.
          { const std::lock_guard<std::mutex> lock(mutex_); }
          changed_.notify_all();
      }) {
    if (!aside_event_.valid()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void Inbox::begin(Interest interest) {
    const std::lock_guard<std::mutex> lock(mutex_);
    interest_ = interest;
    waiting_ = {};
    lost_ = 0;
}

void Inbox::keep_aside(bool events) {
    const std::lock_guard<std::mutex> lock(mutex_);
    keep_links_ = true;
    keep_events_ = events;
}

void Inbox::post(Notice notice) {
    ++posted_;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (is_link_notice(notice)) {
            announced_[notice.address] += std::holds_alternative<Connected>(notice.what) ? 1 : -1;
            ++changes_[notice.address];
            if (keep_links_) {
                put_aside(Notice(notice));
            }
        } else if (keeps_aside(notice)) {
            put_aside(std::move(notice));
            return;
        }
        if (!wanted(notice)) {
            return;
        }
        if (!waiting_.put(std::move(notice))) {
            ++lost_;
        }
    }
    changed_.notify_one();
}

void Inbox::put_aside(Notice&& notice) {
    if (!aside_.put(std::move(notice))) {
        ++lost_aside_;
    }
    const std::uint64_t one = 1;
    (void)!write(aside_event_.get(), &one, sizeof one);
}

std::optional<Notice> Inbox::next(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto stopped = [this] { return stop_.state() != Stop::none; };
    const bool ready =
        changed_.wait_until(lock, deadline, [&] { return stopped() || !waiting_.notices.empty(); });
    if (!ready || stopped()) {
        return std::nullopt;
    }
    return waiting_.take();
}

std::optional<Notice> Inbox::poll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return waiting_.take();
}

std::optional<Notice> Inbox::poll_aside() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::optional<Notice> notice = aside_.take();
    if (aside_.notices.empty()) {
        std::uint64_t count = 0;
        (void)!read(aside_event_.get(), &count, sizeof count);
    }
    return notice;
}

std::size_t Inbox::take_lost_aside() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lost_aside_, 0);
}

std::vector<JovuDeviceAddress> Inbox::announced() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<JovuDeviceAddress> addresses;
    for (const auto& [address, count] : announced_) {
        if (count > 0) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

void Inbox::forget_devices() {
    const std::lock_guard<std::mutex> lock(mutex_);
    waiting_ = {};
    announced_.clear();
}

std::uint64_t Inbox::changes(JovuDeviceAddress address) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = changes_.find(address);
    return found == changes_.end() ? 0 : found->second;
}

void Inbox::drop_reports() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto is_report = [](const Notice& notice) {
        return std::holds_alternative<StatusReport>(notice.what);
    };
    for (Queue others = std::exchange(waiting_, {});
         std::optional<Notice> notice = others.take();) {
        if (!is_report(*notice)) {
            waiting_.put(std::move(*notice));
        }
    }
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

bool Inbox::keeps_aside(const Notice& notice) const {
    const bool is_report = std::holds_alternative<StatusReport>(notice.what);
    return keep_events_ && !is_report && !interest_.events;
}

}  // namespace jovu_cli
