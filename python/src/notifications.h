// SPDX-License-Identifier: Apache-2.0

/// @file
/// What the library's threads report, queued for a thread of Python.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"
#include "jovu/log.h"

namespace jovu_python {

/// The callbacks of a client, in the order in which Python numbers them; and a line of the log.
enum class Kind : std::uint8_t {
    connected,
    disconnected,
    unavailable,
    debug_event,
    servo_trace,
    status_report,
    job_data,
    log,
};

struct LogLine {
    JovuLogLevel level;
    std::string text;
};

/// One call of a callback.
struct Notification {
    Kind kind;
    std::optional<JovuDeviceAddress> device;
    std::variant<std::monostate, JovuDeviceInfo, std::string, servo_trace_msg,
                 JovuJobInterface::StatusMsg, LogLine>
        value;
};

/// A queue from the library's threads to one thread of Python. Bounded: a thread that receives
/// never waits for Python.
class NotificationQueue {
public:
    /// What may wait. The size is that of strings.
    static constexpr std::size_t kMostNotifications = 10000;
    static constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

    /// Adds a notification, or counts it as lost when the queue is full or closed. Threads: any.
    void push(Notification notification);

    /// Waits for notifications.
    /// @return all that wait; empty once the queue is closed and nothing waits.
    std::vector<Notification> take();

    /// Ends take(). Later notifications are dropped and not counted.
    void close();

    /// @return how many notifications were lost.
    std::uint64_t lost() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_:
    std::vector<Notification> waiting_;
    std::size_t bytes_ = 0;
    std::uint64_t lost_ = 0;
    bool closed_ = false;
};

}  // namespace jovu_python
