// SPDX-License-Identifier: Apache-2.0
#include "tool/child_process.h"

#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "tool/exit_status.h"

namespace jovusim {

namespace {

std::vector<char*> pointers(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    // exec() takes pointers to mutable strings and does not change them.
    for (const std::string& string : strings)
        out.push_back(const_cast<char*>(string.c_str()));
    out.push_back(nullptr);
    return out;
}

void print(const char* text) {
    (void)!::write(STDERR_FILENO, text, std::strlen(text));
}

/// The child between fork and exec. Calls async-signal-safe functions only.
[[noreturn]] void become(char* const* arguments, char* const* environment,
                         const ProcessSettings& settings, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(kExitFailure);
    // The preloaded library sleeps for 0 s after each ioctl, which takes as long as the timer
    // slack: 50 microseconds by default.
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    if (settings.open_files) {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = *settings.open_files;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ::sigaction(SIGPIPE, &settings.pipe_action, nullptr);
    ::pthread_sigmask(SIG_SETMASK, &settings.signal_mask, nullptr);
    ::execvpe(arguments[0], arguments, environment);
    const int error = errno;
    print("jovu-sim: ");
    print(arguments[0]);
    print(": ");
    print(::strerrordesc_np(error));
    print("\n");
    ::_exit(error == ENOENT ? kExitNotFound : kExitCannotRun);
}

}  // namespace

pid_t start_program(const std::vector<std::string>& program,
                    const std::vector<std::string>& environment, const ProcessSettings& settings) {
    const std::vector<char*> arguments = pointers(program);
    const std::vector<char*> variables = pointers(environment);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == -1) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) become(arguments.data(), variables.data(), settings, parent);
    return child;
}

std::vector<std::string> current_environment() {
    std::vector<std::string> out;
    for (char** variable = environ; *variable != nullptr; ++variable)
        out.emplace_back(*variable);
    return out;
}

void set_variable(std::vector<std::string>& environment, const std::string& name,
                  const std::string& value) {
    const std::string prefix = name + "=";
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&prefix](const std::string& variable) {
                                         return variable.rfind(prefix, 0) == 0;
                                     }),
                      environment.end());
    environment.push_back(prefix + value);
}

namespace {

/// Each open file of a device node needs a descriptor here, and without one umockdev aborts.
constexpr rlim_t kOpenFiles = 65536;

/// Signals that end a program. They are forwarded to the child.
constexpr std::array kForwarded = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

}  // namespace

ProcessSettings take_over_process() {
    ProcessSettings before{};
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGCHLD);
    for (const int number : kForwarded)
        sigaddset(&handled, number);
    ::pthread_sigmask(SIG_BLOCK, &handled, &before.signal_mask);

    // The simulator must outlive its child even when nothing reads its messages.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &before.pipe_action);

    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kOpenFiles) {
        before.open_files = limit.rlim_cur;
        limit.rlim_cur = std::min(limit.rlim_max, kOpenFiles);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    return before;
}

UniqueFd signal_descriptor() {
    sigset_t handled;
    sigemptyset(&handled);
    sigaddset(&handled, SIGCHLD);
    for (const int number : kForwarded)
        sigaddset(&handled, number);
    UniqueFd fd(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd) throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

ChildGuard::~ChildGuard() {
    if (child_ <= 0) return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
}

}  // namespace jovusim
