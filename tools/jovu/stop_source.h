/// @file
/// Tells the program that it is to end: Ctrl-C, a request to terminate, or nobody reads any more.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "file_descriptor.h"

namespace jovu_cli {

/// Why the program is to end.
enum class Stop {
    none,
    output_closed,  ///< The reader of standard output is gone; found without writing to it.
    signal,         ///< SIGINT, SIGTERM, SIGHUP or SIGQUIT.
};

/// Waits, on a thread of its own, for the reasons to end. Made before any other thread, because the
/// signals must be blocked in all of them. A second signal, when the first has had time to work,
/// ends the process at once, unless the first one has been forgiven.
class StopSource {
public:
    /// Blocks the signals (but those that were ignored when the program started, as under nohup),
    /// ignores SIGPIPE and SIGXFSZ, and starts the thread.
    /// @param output_fd the descriptor of the program's output; -1 to watch none. Stays the
    /// caller's.
    explicit StopSource(int output_fd);
    ~StopSource();
    StopSource(const StopSource&) = delete;
    StopSource& operator=(const StopSource&) = delete;

    /// The strongest reason so far. Any thread.
    Stop state() const noexcept { return state_.load(); }

    /// A descriptor that is readable, for good, once there is a reason to end. For poll(2) only.
    int fd() const noexcept { return stopped_.get(); }

    /// Ends the command if there is a reason to.
    /// @throws Failure without a text: interrupted or output_closed.
    void throw_if_stopped() const;

    /// Takes a Ctrl-C back, for a program that goes on after it: everything is as if it had not
    /// been pressed. Does nothing when there is another reason to end.
    void forgive_interrupt();

    /// While one of these exists, a signal that ends the process at once prints its line on
    /// standard error first, if that takes no waiting.
    class ExitNote {
    public:
        /// @param line with its end.
        ExitNote(StopSource& source, std::string line);
        ~ExitNote();
        ExitNote(const ExitNote&) = delete;
        ExitNote& operator=(const ExitNote&) = delete;

    private:
        StopSource& source_;
    };

    /// While one of these lives, its function is called, on a thread of its own, for each reason to
    /// end that comes up. Not for one that came up before: check state() after constructing.
    class Action {
    public:
        /// @param run must not throw, nor make or destroy an Action of this source.
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
    FileDescriptor stopped_;       ///< An eventfd, up while there is a reason to end.
    FileDescriptor quit_;          ///< An eventfd that ends the thread.
    std::mutex state_mutex_;       ///< Held for moments, below all others; state_ changes under it.
    bool output_closed_ = false;   ///< Protected by state_mutex_.
    bool only_interrupts_ = true;  ///< No other signal than SIGINT. Protected by state_mutex_.
    /// How often an interrupt was forgiven: actions for those before are not run any more.
    /// Protected by state_mutex_.
    unsigned round_ = 0;
    std::string exit_note_;  ///< Protected by state_mutex_.
    std::mutex mutex_;       ///< Held while actions run: they may take any lock but this one.
    std::list<std::function<void(Stop)>> actions_;  ///< Protected by mutex_.
    /// Actions can take seconds, in which a second signal must be seen. Used by thread_ only.
    std::vector<std::thread> runners_;
    unsigned runners_round_ = 0;  ///< To which the runners belong. Used by thread_ only.
    std::chrono::steady_clock::time_point first_signal_;  ///< Used by thread_ only.
    std::thread thread_;
};

}  // namespace jovu_cli
