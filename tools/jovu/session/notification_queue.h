// SPDX-License-Identifier: Apache-2.0

/// @file
/// The queue between the library's threads, which report, and the command, which takes the
/// notifications out; and the library's client that fills the queue.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "firmware/status_report.h"
#include "jovu/client.h"
#include "jovu/device_address.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"
#include "posix/files.h"
#include "posix/mutex.h"
#include "posix/stop_source.h"

namespace jovu_cli {

/// A device is connected and can be used.
struct Connected {};
/// A device is disconnected.
struct Disconnected {};
/// A string that the firmware printed; nothing for an event without one.
using DebugMessage = std::optional<std::string>;

/// One report of the library.
struct Notification {
    JovuDeviceAddress address;
    std::chrono::system_clock::time_point time;  ///< When it was reported.
    std::variant<Connected, Disconnected, DebugMessage, servo_trace_msg, StatusReport> what;
};

/// Which notifications a command takes; connects and disconnects are always queued. Unwanted events
/// are discarded or, in the shell, queued separately.
struct Interest {
    bool reports = false;  ///< StatusReport
    bool events = false;   ///< DebugMessage and servo_trace_msg
};

/// The queue of notifications. Any thread may post; one thread takes them out.
class NotificationQueue {
public:
    using Clock = std::chrono::steady_clock;

    NotificationQueue(StopSource& stop, Interest interest);

    /// Empties the queue for the next command.
    void begin(Interest interest);

    /// Fills the side queue, which the shell shows between commands: with copies of all connects
    /// and disconnects, and with the events that no command takes.
    /// @param events false to discard those events.
    void fill_side_queue(bool events);

    /// Adds a notification. Never blocks, as that would stop receiving from all devices: when the
    /// queue is full, reports and events are counted and dropped, and a connect or disconnect
    /// replaces the oldest notification.
    void post(Notification notification);

    /// Takes out the oldest notification; waits for one.
    /// @return nothing at @p deadline, or as soon as the program is to end.
    std::optional<Notification> next(Clock::time_point deadline);

    /// Takes out the oldest notification, if there is one.
    std::optional<Notification> poll();

    /// A descriptor that is readable while poll() may return something. For poll(2) only.
    int fd() const noexcept { return event_.get(); }

    /// Drops the queued status reports.
    void drop_reports();

    /// @return number of notifications dropped since the last call because the queue was full.
    std::size_t take_lost();

    /// Number of notifications posted so far, including dropped ones.
    std::uint64_t posted() const noexcept { return posted_; }

    /// Takes the oldest notification out of the side queue, if there is one.
    std::optional<Notification> poll_side_queue();

    /// As take_lost(), for the side queue.
    std::size_t take_lost_from_side_queue();

    /// A descriptor that is readable while the side queue holds something. For poll(2) only.
    int side_queue_fd() const noexcept { return side_event_.get(); }

    /// Forgets the connected devices and empties the queue. Only while the library cannot report.
    void clear_devices();

    /// @return the addresses of the devices that were reported as connected and not yet as
    ///     disconnected.
    std::vector<JovuDeviceAddress> connected();

    /// @return number of connects and disconnects that were reported at an address so far. When it
    ///     has changed, the address may belong to another device.
    std::uint64_t changes(JovuDeviceAddress address);

private:
    /// A bounded queue.
    struct Queue {
        bool put(Notification&& notification);
        std::optional<Notification> take();

        std::deque<Notification> entries;
        std::size_t bytes = 0;  ///< Size of the strings in the entries.
    };

    bool is_wanted(const Notification& notification) const JOVU_REQUIRES(mutex_);
    bool is_for_side_queue(const Notification& notification) const JOVU_REQUIRES(mutex_);
    void put_into_side_queue(Notification&& notification) JOVU_REQUIRES(mutex_);

    const StopSource& stop_;
    std::atomic<std::uint64_t> posted_{0};
    Mutex mutex_;
    std::condition_variable_any changed_;
    Interest interest_ JOVU_GUARDED_BY(mutex_);
    Queue queue_ JOVU_GUARDED_BY(mutex_);
    Queue side_queue_ JOVU_GUARDED_BY(mutex_);
    bool side_takes_connections_ JOVU_GUARDED_BY(mutex_) = false;
    bool side_takes_events_ JOVU_GUARDED_BY(mutex_) = false;
    std::size_t lost_from_side_queue_ JOVU_GUARDED_BY(mutex_) = 0;
    std::size_t lost_ JOVU_GUARDED_BY(mutex_) = 0;
    /// Connects less disconnects of each address. A quick replug can report them in any order; the
    /// difference is right after the last report.
    std::unordered_map<JovuDeviceAddress, int> connections_ JOVU_GUARDED_BY(mutex_);
    std::unordered_map<JovuDeviceAddress, std::uint64_t> changes_ JOVU_GUARDED_BY(mutex_);
    FileDescriptor event_;       ///< An eventfd, see fd().
    FileDescriptor side_event_;  ///< An eventfd, readable while side_queue_ holds something.
    StopSource::Action wake_;
};

/// The library's client. Its handlers run on the library's threads and block all receiving, so they
/// only post notifications.
class Client : public JovuClient {
public:
    /// @param notifications must outlive this object.
    explicit Client(NotificationQueue& notifications, const JovuScanPause& = JovuScanPause());
    ~Client() override;

    void device_connected(JovuDeviceAddress address) override;
    void device_disconnected(JovuDeviceAddress address) override;
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override;
    void servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) override;
    void StatusReceived(JovuDeviceAddress address, StatusMsg status) override;

private:
    NotificationQueue& notifications_;
};

}  // namespace jovu_cli
