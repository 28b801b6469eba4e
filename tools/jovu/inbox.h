/// @file
/// The queue between the library's threads, which only put things in, and the command, which takes
/// them out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include "jovu/device_address.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"
#include "stop_source.h"

namespace jovu_cli {

/// A device can be talked to.
struct Connected {};
/// A device is gone.
struct Disconnected {};
/// The firmware printed a text; nothing when it sent an event without one.
using DebugText = std::optional<std::string>;
/// A decoded status report.
using StatusReport = JovuJobInterface::StatusMsg;

/// One thing that the library reported.
struct Notice {
    JovuDeviceAddress address;
    std::chrono::system_clock::time_point time;  ///< When it was reported.
    std::variant<Connected, Disconnected, DebugText, servo_trace_msg, StatusReport> what;
};

/// Which notices a command wants; what nobody wants is dropped at the door. Connects and
/// disconnects always come.
struct Interest {
    bool reports = false;  ///< StatusReport
    bool events = false;   ///< DebugText and servo_trace_msg
};

/// The queue of notices. Any number of threads put in, one takes out.
class Inbox {
public:
    using Clock = std::chrono::steady_clock;

    Inbox(StopSource& stop, Interest interest);

    /// Puts in a notice. When as much is waiting as the inbox holds, reports and events are
    /// counted and dropped: blocking here would stop all reception from all devices.
    void post(Notice notice);

    /// Takes out the oldest notice; waits for one.
    /// @return nothing at @p deadline, and as soon as the program is to end.
    std::optional<Notice> next(Clock::time_point deadline);

    /// Takes out the oldest notice, if there is one.
    std::optional<Notice> poll();

    /// Drops the status reports that wait: answers to requests of which nobody waits any more.
    void drop_reports();

    /// @return number of notices lost since the last call because nobody took them out in time.
    std::size_t take_lost();

private:
    bool wanted(const Notice& notice) const;
    std::optional<Notice> take();

    const StopSource& stop_;
    const Interest interest_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Notice> waiting_;     ///< Protected by mutex_.
    std::size_t waiting_bytes_ = 0;  ///< Text in waiting_. Protected by mutex_.
    std::size_t lost_ = 0;           ///< Protected by mutex_.
    StopSource::Action wake_;
};

}  // namespace jovu_cli
