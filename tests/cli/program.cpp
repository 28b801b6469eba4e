#include "program.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <csignal>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace test {
namespace {

using jovu_cli::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr int kNeverEnded = -1000;

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;
};

Pipe make_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    return {FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

Pipe make_terminal() {
    int ours = -1;
    int theirs = -1;
    winsize size{24, 96, 0, 0};
    if (openpty(&ours, &theirs, nullptr, nullptr, &size) != 0) throw std::runtime_error("openpty");
    fcntl(ours, F_SETFD, FD_CLOEXEC);
    fcntl(theirs, F_SETFD, FD_CLOEXEC);
    return {FileDescriptor(ours), FileDescriptor(theirs)};
}

Pipe make_output(Out out) {
    if (out == Out::terminal || out == Out::console || out == Out::dialog) return make_terminal();
    if (out == Out::pipe) return make_pipe();
    if (out == Out::closed) return {FileDescriptor(), make_pipe().write};
    if (out == Out::none) return {};
    return {FileDescriptor(), FileDescriptor(open("/dev/full", O_WRONLY | O_CLOEXEC))};
}

/// Runs in the child between fork and exec: only system calls are allowed.
[[noreturn]] void become(char* const* argv, int in, int out, int err, bool console) {
    setsid();
    if (console) {
        ioctl(out, TIOCSCTTY, 0);
        in = out;
    }
    dup2(in, STDIN_FILENO);
    if (out >= 0) {
        dup2(out, STDOUT_FILENO);
    } else {
        close(STDOUT_FILENO);
    }
    dup2(err, STDERR_FILENO);
    execv(argv[0], argv);
    _exit(127);
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

Program::Program(const std::vector<std::string>& args, Out out) {
    Pipe input = make_pipe();
    Pipe output = make_output(out);
    Pipe errors = make_pipe();
    const bool console = out == Out::console || out == Out::dialog;
    std::vector<std::string> words{JOVU_PROGRAM};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    setenv("TERM", "xterm", 1);
    ::signal(SIGPIPE, SIG_IGN);  // A program may end before it has read its input.
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        become(argv.data(), input.read.get(), output.write.get(),
               (out == Out::dialog ? output : errors).write.get(), console);
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

bool Program::comes(const std::string& text, bool on_error, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const std::string& written = on_error ? err_text_ : out_text_;
    const FileDescriptor& stream = on_error ? err_ : out_;
    while (written.find(text) == std::string::npos) {
        if (!stream.valid() || Clock::now() > deadline) return false;
        pump();
    }
    return true;
}

int Program::finish() {
    const auto deadline = Clock::now() + kPatience;
    int status = 0;
    while (out_.valid() || err_.valid()) {
        if (Clock::now() > deadline) return kNeverEnded;
        pump();
    }
    const bool ended = eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    if (!ended) return kNeverEnded;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Ended jovu(const std::vector<std::string>& args, const std::string& input, Out out) {
    Program program(args, out);
    if (out == Out::dialog && !input.empty()) program.writes("[y/N] ");
    program.type(input);
    program.end_input();
    const int status = program.finish();
    return {status, program.out(), program.err()};
}

}  // namespace test
