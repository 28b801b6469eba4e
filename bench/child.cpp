// SPDX-License-Identifier: Apache-2.0
#include "child.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace bench {
namespace {

constexpr int kLimitMs = 60000;  ///< For a preparation, and for a turn.

/// A figure, or with an empty name the end of a turn. Smaller than PIPE_BUF, so it arrives whole.
struct Message {
    char measure[40] = "";
    double value = 0;
};

void write_message(int socket, const Message& message) {
    // The parent process has ended, or is about to.
    if (::send(socket, &message, sizeof message, MSG_NOSIGNAL) != sizeof message) ::_exit(1);
}

[[noreturn]] void run(const std::function<void(Turn&)>& body, int socket) {
    try {
        // The library prints a line for each failed exchange.
        if (std::freopen("/dev/null", "w", stdout) == nullptr) throw std::runtime_error("no null");
        Turn turn(socket);
        body(turn);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "measurement: %s\n", error.what());
    }
    ::_exit(1);
}

}  // namespace

bool Turn::next() {
    write_message(socket_, {});
    char begin = 0;
    if (::read(socket_, &begin, 1) != 1) ::_exit(0);
    return true;
}

void Turn::report(const std::string& measure, double value) {
    Message message;
    measure.copy(message.measure, sizeof message.measure - 1);
    message.value = value;
    write_message(socket_, message);
}

Child::Child(const std::function<void(Turn&)>& body) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("no socket for a child process");
    std::fflush(nullptr);
    process_ = ::fork();
    if (process_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[0]);
        run(body, ends[1]);
    }
    ::close(ends[1]);
    socket_ = ends[0];
    if (process_ < 0) {
        ::close(socket_);
        throw std::runtime_error("no child process");
    }
    try {
        wait();
    } catch (...) {
        end();
        throw;
    }
}

Child::~Child() {
    end();
}

void Child::end() noexcept {
    ::close(socket_);
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
}

Figures Child::turn() {
    if (::send(socket_, "", 1, MSG_NOSIGNAL) != 1)
        throw std::runtime_error("a measurement has ended early");
    return wait();
}

Figures Child::wait() {
    Figures figures;
    for (Message message;;) {
        pollfd ready{socket_, POLLIN, 0};
        if (::poll(&ready, 1, kLimitMs) == 0)
            throw std::runtime_error("a measurement has not ended within a minute");
        if (::recv(socket_, &message, sizeof message, 0) != sizeof message)
            throw std::runtime_error("a measurement failed");
        if (message.measure[0] == '\0') return figures;
        figures[message.measure] = message.value;
    }
}

}  // namespace bench
