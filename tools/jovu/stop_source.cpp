#include "stop_source.h"

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

#include "failure.h"
#include "terminal_guard.h"

namespace jovu_cli {
namespace {

/// Signals that come this close to the first one are its echo: a terminal, a shell's timeout and a
/// parent program may each pass the same request on.
constexpr std::chrono::milliseconds echo_time{500};

FileDescriptor checked(int fd, const char* what) {
    if (fd == -1) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return FileDescriptor(fd);
}

/// A signal that is ignored from the start is to stay so, but a signalfd would report it.
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
    // Fails only when the counter is full, and then the event is up already.
    (void)!write(event.get(), &one, sizeof one);
}

}  // namespace

StopSource::StopSource(int output_fd) {
    // What they tell, the call that caused them tells as well.
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
        {output_fd, 0, 0},  // POLLERR and POLLHUP come unasked.
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
            watched[2].fd = -1;  // It stays in that state: look no more.
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
    const bool echo = interrupt && now - first_signal_ <= echo_time;
    if (!interrupt) {
        const std::lock_guard<std::mutex> lock(state_mutex_);
        only_interrupts_ = false;
    }
    if (state() != Stop::signal) {
        if (!echo) {
            first_signal_ = now;
            stop(Stop::signal);
        }
    } else if (now - first_signal_ > echo_time) {
        restore_terminal();
        print_exit_note();
        _exit(static_cast<int>(ExitCode::interrupted));
    }
}

void StopSource::print_exit_note() {
    const std::lock_guard<std::mutex> lock(state_mutex_);
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    // A pipe that polls as writable takes a line without blocking.
    if (poll(&writable, 1, 0) == 1) {
        (void)!write(STDERR_FILENO, exit_note_.data(), exit_note_.size());
    }
}

void StopSource::forgive_interrupt() {
    const std::lock_guard<std::mutex> lock(state_mutex_);
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
        // They have done their work, or find that there is none.
        for (std::thread& runner : runners_) {
            runner.join();
        }
        runners_.clear();
        runners_round_ = now;
    }
    {
        const std::lock_guard<std::mutex> lock(state_mutex_);
        // A signal outweighs a reader that went away.
        state_ = std::max(state(), reason);
        output_closed_ = output_closed_ || reason == Stop::output_closed;
        raise_event(stopped_);
    }
    runners_.emplace_back([this, reason, now] { run_actions(reason, now); });
}

void StopSource::run_actions(Stop reason, unsigned round_of_reason) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (round() != round_of_reason) {
        return;
    }
    for (const auto& run : actions_) {
        run(reason);
    }
}

unsigned StopSource::round() {
    const std::lock_guard<std::mutex> lock(state_mutex_);
    return round_;
}

StopSource::ExitNote::ExitNote(StopSource& source, std::string line) : source_(source) {
    const std::lock_guard<std::mutex> lock(source_.state_mutex_);
    source_.exit_note_ = std::move(line);
}

StopSource::ExitNote::~ExitNote() {
    const std::lock_guard<std::mutex> lock(source_.state_mutex_);
    source_.exit_note_.clear();
}

StopSource::Action::Action(StopSource& source, std::function<void(Stop)> run) : source_(source) {
    const std::lock_guard<std::mutex> lock(source_.mutex_);
    entry_ = source_.actions_.insert(source_.actions_.end(), std::move(run));
}

StopSource::Action::~Action() {
    const std::lock_guard<std::mutex> lock(source_.mutex_);
    source_.actions_.erase(entry_);
}

}  // namespace jovu_cli
