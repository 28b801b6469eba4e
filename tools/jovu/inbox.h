/// @file
/// The queue between the library's threads, which only put things in, and the command, which takes
/// them out.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "file_descriptor.h"
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

/// Which notices a command wants; what nobody wants is dropped at the door, or kept aside. Connects
/// and disconnects always come.
struct Interest {
    bool reports = false;  ///< StatusReport
    bool events = false;   ///< DebugText and servo_trace_msg
};

/// The queue of notices. Any number of threads put in, one takes out.
class Inbox {
public:
    using Clock = std::chrono::steady_clock;

    Inbox(StopSource& stop, Interest interest);

    /// Begins with another command: forgets what waits for the one before it.
    void begin(Interest interest);

    /// Keeps aside what is shown between the commands: all connects and disconnects (commands get
    /// them as well), and the events that no command wants, which are dropped otherwise.
    /// @param events false to drop them all the same.
    void keep_aside(bool events);

    /// Puts in a notice. When as much is waiting as the inbox holds, reports and events are
    /// counted and dropped, and a connect or disconnect drops the oldest notice: blocking here
    /// would stop all reception from all devices.
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

    /// How many notices were put in so far, whatever became of them.
    std::uint64_t posted() const noexcept { return posted_; }

    /// Takes out the oldest notice that was kept aside, if there is one.
    std::optional<Notice> poll_aside();

    /// As take_lost(), of what should have been kept aside.
    std::size_t take_lost_aside();

    /// A descriptor that is readable while something is kept aside. For poll(2) only.
    int aside_fd() const noexcept { return aside_event_.get(); }

    /// Forgets the devices that were announced, and what waits about them. Not while the library
    /// may report anything.
    void forget_devices();

    /// @return the addresses of the devices that were announced and have not left since.
    std::vector<JovuDeviceAddress> announced();

    /// @return how many connects and disconnects were reported at an address so far. Another number
    ///     than before means that the address may belong to another device.
    std::uint64_t changes(JovuDeviceAddress address);

private:
    /// Notices in their order, as many as may wait.
    struct Queue {
        bool put(Notice&& notice);
        std::optional<Notice> take();

        std::deque<Notice> notices;
        std::size_t bytes = 0;  ///< Text in the notices.
    };

    bool wanted(const Notice& notice) const;
    bool keeps_aside(const Notice& notice) const;
    void put_aside(Notice&& notice);

    const StopSource& stop_;
    std::atomic<std::uint64_t> posted_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    Interest interest_;           ///< Protected by mutex_.
    Queue waiting_;               ///< Protected by mutex_.
    Queue aside_;                 ///< Protected by mutex_.
    bool keep_links_ = false;     ///< Protected by mutex_.
    bool keep_events_ = false;    ///< Protected by mutex_.
    std::size_t lost_aside_ = 0;  ///< Protected by mutex_.
    std::size_t lost_ = 0;        ///< Protected by mutex_.
    /// Announcements less departures. When a device is replugged quickly they come in any order,
    /// but their number is right in the end. Protected by mutex_.
    std::unordered_map<JovuDeviceAddress, int> announced_;
    std::unordered_map<JovuDeviceAddress, std::uint64_t> changes_;  ///< Protected by mutex_.
    FileDescriptor aside_event_;  ///< An eventfd, up while aside_ holds something.
    StopSource::Action wake_;
};

}  // namespace jovu_cli
