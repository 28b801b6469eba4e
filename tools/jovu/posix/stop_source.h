// SPDX-License-Identifier: Apache-2.0

/// @file
/// Reasons for the program to end (Ctrl-C, a request to terminate, an output that nobody reads),
/// and a watchdog that ends a call which takes too long.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "posix/files.h"
#include "posix/mutex.h"

namespace jovu_cli {

/// Why the program is to end.
enum class Stop {
    none,
    output_closed,  ///< The reader of standard output closed it; found without writing.
    signal,         ///< SIGINT, SIGTERM, SIGHUP or SIGQUIT.
};

/// Waits for the reasons to end, on a thread of its own. Must be constructed before any other
/// thread starts: all threads must have the signals blocked. A second signal more than 0.5 s after
/// the first ends the process at once, unless the first was forgiven.
class StopSource {
public:
    /// Blocks the signals (except those that are ignored already, as under nohup), ignores SIGPIPE
    /// and SIGXFSZ, and starts the thread.
    /// @param output_fd the program's output, owned by the caller; -1 to watch none.
    explicit StopSource(int output_fd);
    ~StopSource();
    StopSource(const StopSource&) = delete;
    StopSource& operator=(const StopSource&) = delete;

    /// The strongest reason so far. Any thread.
    Stop state() const noexcept { return state_.load(); }

    /// A descriptor that is readable while there is a reason to end. For poll(2) only.
    int fd() const noexcept { return stopped_.get(); }

    /// Ends the command if there is a reason to.
    /// @throws Failure without a message: interrupted or output_closed.
    void throw_if_stopped() const;

    /// Takes back a Ctrl-C, for a program that continues after it: the state is as before it. Has
    /// no effect when there is another reason to end.
    void forgive_interrupt();

    /// A line that is printed on standard error when a second signal ends the process, unless
    /// printing would block. Registered as long as the object exists.
    class ExitNote {
    public:
        /// @param line with its line feed.
        ExitNote(StopSource& source, std::string line);
        ~ExitNote();
        ExitNote(const ExitNote&) = delete;
        ExitNote& operator=(const ExitNote&) = delete;

    private:
        StopSource& source_;
    };

    /// A function that is called, on another thread, for each new reason to end. Registered as
    /// long as the object exists. Check state() after construction: earlier reasons do not count.
    class Action {
    public:
        /// @param run must not throw, nor construct or destroy an Action of this source.
        Action(StopSource& source, std::function<void(Stop)> run);
        /// Waits for a running call.
        ~Action();
        Action(const Action&) = delete;
        Action& operator=(const Action&) = delete;

    private:
        StopSource& source_;
        std::list<std::function<void(Stop)>>::iterator entry_;
    };

private:
    void watch(int output_fd);
    void take_signal();
    void print_exit_note();
    void stop(Stop reason);
    void run_actions(Stop reason, unsigned round_of_reason);
    unsigned round();

    std::atomic<Stop> state_{Stop::none};
    FileDescriptor signals_;
    FileDescriptor stopped_;  ///< An eventfd, readable while there is a reason to end.
    FileDescriptor quit_;     ///< An eventfd that ends the thread.
    /// Held briefly, below all other locks. state_ changes with it held.
    Mutex state_mutex_;
    bool output_closed_ JOVU_GUARDED_BY(state_mutex_) = false;
    /// No other signal than SIGINT arrived.
    bool only_interrupts_ JOVU_GUARDED_BY(state_mutex_) = true;
    /// Number of forgiven interrupts. An action is not run for a reason of an earlier round.
    unsigned round_ JOVU_GUARDED_BY(state_mutex_) = 0;
    std::string exit_note_ JOVU_GUARDED_BY(state_mutex_);
    Mutex mutex_;  ///< Held while actions run; they may take any other lock.
    std::list<std::function<void(Stop)>> actions_ JOVU_GUARDED_BY(mutex_);
    /// Threads that run actions: those can take seconds, and a second signal must be handled
    /// meanwhile. Used by thread_ only, as the two members below.
    std::vector<std::thread> runners_;
    unsigned runners_round_ = 0;  ///< The round of the runners.
    std::chrono::steady_clock::time_point first_signal_;
    std::thread thread_;
};

/// Limits the time of a call. Calls a function that makes the call return when a limit has passed.
/// Signs of life extend the time up to a maximum.
class Watchdog {
public:
    struct Limits {
        std::chrono::milliseconds quiet;       ///< Without a sign of life.
        std::chrono::milliseconds after_stop;  ///< Likewise, once there is a reason to end.
        std::chrono::milliseconds at_most;     ///< In any case.
    };

    /// Starts the time.
    /// @param alive returns whether there was a sign of life since its last call.
    /// @param on_timeout called at most once. Both run on another thread and must not throw.
    Watchdog(const StopSource& stop, Limits limits, std::function<bool()> alive,
             std::function<void()> on_timeout);
    /// Waits for a running call of a function.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch(const StopSource& stop, Limits limits) const;

    std::function<bool()> alive_;
    std::function<void()> on_timeout_;
    FileDescriptor done_;  ///< An eventfd.
    std::thread thread_;
};

}  // namespace jovu_cli
