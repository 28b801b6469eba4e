// SPDX-License-Identifier: Apache-2.0
#include "posix/stop_source.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>
#include <utility>

#include "cli/failure.h"
#include "posix/terminal_guard.h"

namespace jovu_cli {
namespace {

/// A signal this soon after the first repeats it: a terminal, a shell's timeout and a parent
/// program may each forward the same request.
constexpr std::chrono::milliseconds kEchoTime{500};

FileDescriptor checked(int fd, const char* what) {
    if (fd == -1) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return FileDescriptor(fd);
}

/// A signal that is ignored from the start must stay ignored, but a signalfd would report it.
bool ignored(int signal) {
    struct sigaction action {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t block_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (!ignored(signal)) {
            sigaddset(&set, signal);
        }
    }
    const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
    return set;
}

void raise_event(const FileDescriptor& event) {
    const std::uint64_t one = 1;
    // Fails only when the counter is full; the descriptor is readable then.
    (void)!write(event.get(), &one, sizeof one);
}

using Clock = std::chrono::steady_clock;

/// Waits until one of the descriptors is ready or the time has come.
void poll_until(pollfd* watched, nfds_t count, Clock::time_point end) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        const int ready = poll(watched, count, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0 || (ready == 0 && Clock::now() >= end)) {
            return;
        }
    }
}

}  // namespace

StopSource::StopSource(int output_fd) {
    // The call that causes one of these fails with an error of its own.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    const sigset_t set = block_signals();
    signals_ = checked(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
    stopped_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    quit_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    thread_ = std::thread([this, output_fd] { watch(output_fd); });
}

StopSource::~StopSource() {
    raise_event(quit_);
    thread_.join();
    for (std::thread& runner : runners_) {
        runner.join();
    }
}

void StopSource::throw_if_stopped() const {
    switch (state()) {
        case Stop::none:
            return;
        case Stop::output_closed:
            throw Failure(ExitCode::output_closed);
        case Stop::signal:
            throw Failure(ExitCode::interrupted);
    }
}

void StopSource::watch(int output_fd) {
    pollfd watched[] = {
        {signals_.get(), POLLIN, 0},
        {quit_.get(), POLLIN, 0},
        {output_fd, 0, 0},  // POLLERR and POLLHUP are always reported.
    };
    for (;;) {
        if (poll(watched, std::size(watched), -1) == -1) {
            continue;  // EINTR, as after SIGSTOP and SIGCONT.
        }
        if (watched[1].revents != 0) {
            return;
        }
        if (watched[0].revents != 0) {
            take_signal();
        }
        if (watched[2].revents != 0) {
            watched[2].fd = -1;  // The state does not end: watch it no longer.
            stop(Stop::output_closed);
        }
    }
}

void StopSource::take_signal() {
    signalfd_siginfo info{};
    if (read(signals_.get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    const bool interrupt = info.ssi_signo == SIGINT;
    const bool echo = interrupt && now - first_signal_ <= kEchoTime;
    if (!interrupt) {
        const MutexLock lock(state_mutex_);
        only_interrupts_ = false;
    }
    if (state() != Stop::signal) {
        if (!echo) {
            first_signal_ = now;
            stop(Stop::signal);
        }
    } else if (now - first_signal_ > kEchoTime) {
        restore_terminal();
        print_exit_note();
        _exit(static_cast<int>(ExitCode::interrupted));
    }
}

void StopSource::print_exit_note() {
    const MutexLock lock(state_mutex_);
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    // A pipe that polls as writable takes a line without blocking.
    if (poll(&writable, 1, 0) == 1) {
        (void)!write(STDERR_FILENO, exit_note_.data(), exit_note_.size());
    }
}

void StopSource::forgive_interrupt() {
    const MutexLock lock(state_mutex_);
    if (state() != Stop::signal || !only_interrupts_ || output_closed_) {
        return;
    }
    state_ = Stop::none;
    ++round_;
    std::uint64_t count = 0;
    (void)!read(stopped_.get(), &count, sizeof count);
}

void StopSource::stop(Stop reason) {
    const unsigned now = round();
    if (runners_round_ != now) {
        // They have finished, or will find an older round and return.
        for (std::thread& runner : runners_) {
            runner.join();
        }
        runners_.clear();
        runners_round_ = now;
    }
    {
        const MutexLock lock(state_mutex_);
        // A signal is stronger than a closed output.
        state_ = std::max(state(), reason);
        output_closed_ = output_closed_ || reason == Stop::output_closed;
        raise_event(stopped_);
    }
    runners_.emplace_back([this, reason, now] { run_actions(reason, now); });
}

void StopSource::run_actions(Stop reason, unsigned round_of_reason) {
    const MutexLock lock(mutex_);
    if (round() != round_of_reason) {
        return;
    }
    for (const auto& run : actions_) {
        run(reason);
    }
}

unsigned StopSource::round() {
    const MutexLock lock(state_mutex_);
    return round_;
}

StopSource::ExitNote::ExitNote(StopSource& source, std::string line) : source_(source) {
    const MutexLock lock(source_.state_mutex_);
    source_.exit_note_ = std::move(line);
}

StopSource::ExitNote::~ExitNote() {
    const MutexLock lock(source_.state_mutex_);
    source_.exit_note_.clear();
}

StopSource::Action::Action(StopSource& source, std::function<void(Stop)> run) : source_(source) {
    const MutexLock lock(source_.mutex_);
    entry_ = source_.actions_.insert(source_.actions_.end(), std::move(run));
}

StopSource::Action::~Action() {
    const MutexLock lock(source_.mutex_);
    source_.actions_.erase(entry_);
}

Watchdog::Watchdog(const StopSource& stop, Limits limits, std::function<bool()> alive,
                   std::function<void()> on_timeout)
    : alive_(std::move(alive)),
      on_timeout_(std::move(on_timeout)),
      done_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!done_.valid()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    thread_ = std::thread([this, &stop, limits] { watch(stop, limits); });
}

Watchdog::~Watchdog() {
    const std::uint64_t one = 1;
    (void)!write(done_.get(), &one, sizeof one);
    thread_.join();
}

void Watchdog::watch(const StopSource& stop, Limits limits) const {
    const auto last_end = Clock::now() + limits.at_most;
    bool stopped = false;
    pollfd watched[] = {{done_.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
    for (;;) {
        const auto limit = stopped ? limits.after_stop : limits.quiet;
        poll_until(watched, stopped ? 1 : 2, std::min(last_end, Clock::now() + limit));
        if (watched[0].revents != 0) {
            return;
        }
        const bool stopped_now = !stopped && watched[1].revents != 0;
        stopped = stopped || stopped_now;
        const bool alive = alive_();
        if (Clock::now() >= last_end || (!stopped_now && !alive)) {
            on_timeout_();
            return;
        }
    }
}

}  // namespace jovu_cli
