// SPDX-License-Identifier: Apache-2.0
#include "tool/main_loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

#include "device/types.h"
#include "tool/child_process.h"
#include "tool/exit_status.h"

namespace jovusim {

Waker::Waker() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Waker::wake() const {
    const std::uint64_t one = 1;
    (void)!::write(fd_.get(), &one, sizeof one);
}

void Waker::drain() const {
    std::uint64_t count = 0;
    (void)!::read(fd_.get(), &count, sizeof count);
}

MainLoop::MainLoop(Bus& bus, ControlServer& server, const Waker& waker)
    : bus_(bus), server_(server), waker_(waker), signals_(signal_descriptor()) {}

int MainLoop::run(pid_t child) {
    // The child may have ended before the signal descriptor existed.
    while (!child_ended(child)) {
        while (!serve(std::nullopt)) {
        }
        forward_signals(child);
    }
    return status_;
}

int MainLoop::run() {
    while (!next_signal())
        serve(std::nullopt);
    return kExitOk;
}

std::optional<int> MainLoop::serve_until(const std::function<bool()>& condition, Millis time) {
    const Millis deadline = now_ms() + time;
    while (!condition() && now_ms() < deadline) {
        if (const auto number = next_signal()) return number;
        serve(deadline);
    }
    return std::nullopt;
}

/// Returns whether a signal has arrived.
bool MainLoop::serve(std::optional<Millis> deadline) {
    std::vector<pollfd> waits;
    waits.push_back({signals_.get(), POLLIN, 0});
    waits.push_back({waker_.fd(), POLLIN, 0});
    server_.add_to(waits);
    bus_.add_to(waits);
    if (::poll(waits.data(), waits.size(), timeout(deadline)) < 0) {
        if (errno == EINTR) return false;
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    const bool signalled = waits[0].revents != 0;
    if (waits[1].revents != 0) waker_.drain();
    bus_.serve(waits);
    // Removes devices that disconnected themselves before a request plugs one in there.
    bus_.service();
    server_.serve(waits);
    bus_.service();
    return signalled;
}

int MainLoop::timeout(std::optional<Millis> deadline) const {
    auto due = bus_.next_due();
    if (deadline && (!due || *deadline < *due)) due = deadline;
    if (!due) return -1;
    return static_cast<int>(std::clamp<Millis>(*due - now_ms(), 0, INT_MAX));
}

bool MainLoop::child_ended(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, WNOHANG) != child) return false;
    if (WIFSIGNALED(status)) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): main thread only.
        const char* const name = ::strsignal(WTERMSIG(status));
        std::fprintf(stderr, "jovu-sim: the program was ended by signal %d (%s)\n",
                     WTERMSIG(status), name);
        status_ = kExitSignalBase + WTERMSIG(status);
    } else {
        status_ = WEXITSTATUS(status);
    }
    return true;
}

void MainLoop::forward_signals(pid_t child) const {
    signalfd_siginfo info{};
    while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
        const int number = static_cast<int>(info.ssi_signo);
        // The terminal has sent it to the child as well.
        if (number != SIGCHLD && info.ssi_code != SI_KERNEL) ::kill(child, number);
    }
}

std::optional<int> MainLoop::next_signal() const {
    signalfd_siginfo info{};
    while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo != SIGCHLD) return static_cast<int>(info.ssi_signo);
    }
    return std::nullopt;
}

}  // namespace jovusim
