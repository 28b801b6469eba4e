#include "posix/terminal_guard.h"

#include <pthread.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

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

/// Sets modes without discarding input. Does nothing while another process group is in the
/// foreground: setting modes then would stop this process.
void set_modes(const termios& modes) noexcept {
    const int error = errno;
    const int fd = guarded_fd;
    const pid_t foreground = fd < 0 ? -1 : tcgetpgrp(fd);
    if (fd >= 0 && (foreground == -1 || foreground == getpgrp())) {
        // Without waiting for the output: a terminal that Ctrl-S holds would block.
        tcsetattr(fd, TCSANOW, &modes);
    }
    errno = error;
}

void return_to_changed() noexcept {
    if (has_changed_modes) {
        set_modes(changed_modes);
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

bool TerminalGuard::take_stopped() noexcept {
    return was_stopped.exchange(false);
}

void restore_terminal() noexcept {
    set_modes(found_modes);
}

}  // namespace jovu_cli
