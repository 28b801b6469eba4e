// SPDX-License-Identifier: Apache-2.0
#include "posix/terminal_guard.h"

#include <poll.h>
#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <stdexcept>

namespace jovu_cli {
namespace {

/// Signals that kill the process unless they are handled.
constexpr std::array kKillingSignals{SIGABRT, SIGALRM, SIGBUS,  SIGFPE,  SIGILL, SIGSEGV,
                                     SIGSYS,  SIGTRAP, SIGUSR1, SIGUSR2, SIGXCPU};

// Globals, for the signal handlers. The modes do not change while their flag is set.
termios found_modes;
termios changed_modes;
std::atomic<int> guarded_fd{-1};  // found_modes is valid unless it is -1.
std::atomic<bool> has_changed_modes{false};
std::atomic<bool> was_stopped{false};
std::array<struct sigaction, kKillingSignals.size()> killing_before;
struct sigaction stop_before;
struct sigaction continue_before;

/// Bytes that a signal handler writes. The size is 0 while they change.
struct TerminalString {
    std::array<char, 256> bytes;
    std::atomic<std::size_t> size{0};

    void set(std::string_view value) {
        if (value.size() > bytes.size()) {
            throw std::length_error("a string of the terminal is too long");
        }
        size = 0;
        std::copy(value.begin(), value.end(), bytes.begin());
        size = value.size();
    }
    /// Writes nothing to a terminal that Ctrl-S holds.
    void write_to(int fd) const noexcept {
        pollfd writable{fd, POLLOUT, 0};
        if (size > 0 && poll(&writable, 1, 0) == 1) {
            (void)!write(fd, bytes.data(), size);
        }
    }
};
TerminalString restore_string;
TerminalString return_string;

/// Whether this process may use the terminal: no other process group is in the foreground. Setting
/// modes otherwise would stop the process.
bool may_use_terminal(int fd) noexcept {
    const pid_t foreground = fd < 0 ? -1 : tcgetpgrp(fd);
    return fd >= 0 && (foreground == -1 || foreground == getpgrp());
}

/// Writes a string, and sets modes without discarding input. Does nothing in the background.
void set_modes(const termios& modes, const TerminalString& string) noexcept {
    const int error = errno;
    const int fd = guarded_fd;
    if (may_use_terminal(fd)) {
        string.write_to(fd);
        // Without waiting for the output: a terminal that Ctrl-S holds would block.
        tcsetattr(fd, TCSANOW, &modes);
    }
    errno = error;
}

void return_to_changed() noexcept {
    if (has_changed_modes) {
        set_modes(changed_modes, return_string);
    }
    was_stopped = true;
}

void on_continue(int /*number*/) {
    return_to_changed();
}

struct sigaction stop_action();

/// Stops the process as the signal does without a handler.
void on_stop(int number) {
    const int error = errno;
    restore_terminal();
    struct sigaction as_usual {};
    as_usual.sa_handler = SIG_DFL;
    sigaction(number, &as_usual, nullptr);
    sigset_t only_this;
    sigemptyset(&only_this);
    sigaddset(&only_this, number);
    raise(number);
    pthread_sigmask(SIG_UNBLOCK, &only_this, nullptr);  // The process stops here.
    pthread_sigmask(SIG_BLOCK, &only_this, nullptr);
    const struct sigaction handled = stop_action();
    sigaction(number, &handled, nullptr);
    // An orphaned process does not stop and receives no SIGCONT.
    return_to_changed();
    errno = error;
}

/// Restores the terminal and passes the signal to the action before this handler.
void on_kill(int number, siginfo_t* info, void* /*context*/) {
    restore_terminal();
    for (std::size_t i = 0; i < kKillingSignals.size(); ++i) {
        if (kKillingSignals[i] == number) {
            sigaction(number, &killing_before[i], nullptr);
        }
    }
    // A fault recurs when this handler returns. A signal that was sent must be raised again.
    if (info->si_code <= 0) {
        raise(number);
    }
}

struct sigaction stop_action() {
    struct sigaction action {};
    action.sa_handler = on_stop;
    action.sa_flags = SA_RESTART;
    return action;
}

bool is_default(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL;
}

bool is_ignored(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;
}

void handle_signals() {
    struct sigaction killed {};
    killed.sa_sigaction = on_kill;
    killed.sa_flags = SA_SIGINFO | SA_RESTART;
    for (std::size_t i = 0; i < kKillingSignals.size(); ++i) {
        sigaction(kKillingSignals[i], nullptr, &killing_before[i]);
        if (!is_ignored(killing_before[i])) {
            sigaction(kKillingSignals[i], &killed, nullptr);
        }
    }
    const struct sigaction stopped = stop_action();
    sigaction(SIGTSTP, nullptr, &stop_before);
    if (is_default(stop_before)) {  // It is ignored when no shell could continue the process.
        sigaction(SIGTSTP, &stopped, nullptr);
    }
    struct sigaction continued {};
    continued.sa_handler = on_continue;
    continued.sa_flags = SA_RESTART;
    sigaction(SIGCONT, &continued, &continue_before);
}

void handle_signals_as_before() {
    for (std::size_t i = 0; i < kKillingSignals.size(); ++i) {
        sigaction(kKillingSignals[i], &killing_before[i], nullptr);
    }
    sigaction(SIGTSTP, &stop_before, nullptr);
    sigaction(SIGCONT, &continue_before, nullptr);
}

}  // namespace

TerminalGuard::TerminalGuard(int fd) {
    if (tcgetattr(fd, &found_modes) == 0) {
        guarded_fd = fd;
        handle_signals();
    }
}

TerminalGuard::~TerminalGuard() {
    if (guarded_fd >= 0) {
        has_changed_modes = false;  // First: a stop from here on must not set them again.
        restore_terminal();
        handle_signals_as_before();
        guarded_fd = -1;
    }
}

void TerminalGuard::keep_changed() {
    if (guarded_fd >= 0 && tcgetattr(guarded_fd, &changed_modes) == 0) {
        has_changed_modes = true;
    }
}

void TerminalGuard::set_strings(std::string_view on_restore, std::string_view on_return) {
    restore_string.set(on_restore);
    return_string.set(on_return);
}

bool TerminalGuard::may_use() noexcept {
    return may_use_terminal(guarded_fd);
}

bool TerminalGuard::take_stopped() noexcept {
    return was_stopped.exchange(false);
}

void restore_terminal() noexcept {
    set_modes(found_modes, restore_string);
}

}  // namespace jovu_cli
