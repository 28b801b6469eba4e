// SPDX-License-Identifier: Apache-2.0
#include "cli_test.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace test {
namespace {

using jovu_cli::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr int kNeverEnded = -1000;

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
};

Pipe make_pipe(bool terminal = false) {
    int ends[2];
    winsize size{24, 96, 0, 0};
    if ((terminal ? openpty(&ends[0], &ends[1], nullptr, nullptr, &size) : pipe(ends)) != 0)
        throw std::runtime_error("no pipe or terminal");
    for (const int end : ends)
        fcntl(end, F_SETFD, FD_CLOEXEC);
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Pipe make_output(Out out) {
    if (out == Out::terminal || out == Out::console || out == Out::dialog) return make_pipe(true);
    if (out == Out::pipe) return make_pipe();
    if (out == Out::closed) return {FileDescriptor(), make_pipe().write};
    if (out == Out::none) return {};
    return {FileDescriptor(), FileDescriptor(open("/dev/full", O_WRONLY | O_CLOEXEC))};
}

void take(FileDescriptor& fd, short events, std::string& text) {
    if (events == 0) return;
    char bytes[4096];
    const ssize_t count = read(fd.get(), bytes, sizeof bytes);
    if (count > 0) {
        text.append(bytes, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
        fd = FileDescriptor();  // A terminal ends with EIO.
    }
}

}  // namespace

/// Reads output for at most 20 ms.
void Program::pump() {
    pollfd watched[] = {{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}};
    poll(watched, 2, 20);  // Bounded: the callers check their deadline.
    take(out_, watched[0].revents, out_text_);
    take(err_, watched[1].revents, err_text_);
}

Program::Program(const std::string& line, Out out) {
    Pipe input = make_pipe();
    Pipe output = make_output(out);
    Pipe errors = make_pipe();
    const bool console = out == Out::console || out == Out::dialog;
    std::vector<std::string> words{JOVU_PROGRAM};
    std::istringstream stream(line);
    for (std::string word; stream >> std::quoted(word);)
        words.push_back(word);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    setenv("TERM", "xterm", 1);
    ::signal(SIGPIPE, SIG_IGN);  // A program may end before it has read its input.
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {  // Only system calls are allowed until the program runs.
        setsid();
        if (console) ioctl(output.write.get(), TIOCSCTTY, 0);
        dup2((console ? output.write : input.read).get(), STDIN_FILENO);
        close(STDOUT_FILENO);
        dup2(output.write.get(), STDOUT_FILENO);  // There may be none.
        dup2((out == Out::dialog ? output : errors).write.get(), STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    in_ = console ? FileDescriptor(fcntl(output.read.get(), F_DUPFD_CLOEXEC, 0))
                  : std::move(input.write);
    out_ = std::move(output.read);
    err_ = std::move(errors.read);
}

Program::~Program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Program::type(const std::string& text) {
    const ssize_t count = write(in_.get(), text.data(), text.size());
    if (count < 0 && errno != EPIPE) throw std::runtime_error("write to the program");
}

bool Program::in_line_mode() const {
    termios modes{};
    tcgetattr(in_.get(), &modes);
    return (modes.c_lflag & ICANON) != 0 && (modes.c_lflag & ECHO) != 0;
}

bool Program::writes(const std::string& text, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const auto contains = [&](const std::string& written) {
        return written.find(text) != std::string::npos;
    };
    while (!contains(out_text_) && !contains(err_text_)) {
        if ((!out_.valid() && !err_.valid()) || Clock::now() > deadline) return false;
        pump();
    }
    return true;
}

Ended Program::finish() {
    int status = 0;
    const bool ended = eventually([&] {
        if (out_.valid() || err_.valid()) pump();
        return !out_.valid() && !err_.valid() && waitpid(pid_, &status, WNOHANG) == pid_;
    });
    if (ended) pid_ = -1;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return {ended ? code : kNeverEnded, out_text_, err_text_};
}

Ended jovu(const std::string& line, const std::string& input, Out out) {
    Program program(line, out);
    if (out == Out::dialog && !input.empty()) program.writes("[y/N] ");
    program.type(input);
    program.end_input();
    return program.finish();
}

}  // namespace test
