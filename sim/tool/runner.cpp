// SPDX-License-Identifier: Apache-2.0
#include "tool/runner.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "bus/capture.h"
#include "bus/testbed.h"
#include "bus/types.h"
#include "tool/control_commands.h"
#include "tool/control_socket.h"
#include "tool/exit_status.h"

namespace jovusim {

namespace {

/// Settings of this process before take_over_process() changed them, for the child.
struct ProcessSettings {
    sigset_t signal_mask;
    struct sigaction pipe_action;
    std::optional<rlim_t> open_files;
};

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

/// Starts the program. The kernel kills it when this process ends, so the calling thread must live
/// as long as the process.
/// @param program file and arguments; the file is looked up in PATH
/// @param environment "NAME=VALUE"
/// @throws std::system_error when fork() fails; a program that cannot be run ends with
/// kExitNotFound
///     or kExitCannotRun
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

/// The environment of this process.
std::vector<std::string> current_environment() {
    std::vector<std::string> out;
    for (char** variable = environ; *variable != nullptr; ++variable)
        out.emplace_back(*variable);
    return out;
}

/// Sets a variable in an environment.
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

constexpr char kPreloadVariable[] = "LD_PRELOAD";
constexpr char kPreloadLibrary[] = "libumockdev-preload.so.0";

/// Each open file of a device node needs a descriptor here, and without one umockdev aborts.
constexpr rlim_t kOpenFiles = 65536;

/// Signals that end a program. They are forwarded to the child.
constexpr std::array kForwarded = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

/// Prepares this process. Returns the settings from before.
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

/// Wakes the main loop from any thread.
class Waker {
public:
    Waker() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    int fd() const { return fd_.get(); }
    void wake() const { (void)!::write(fd_.get(), &kOne, sizeof kOne); }
    void drain() const {
        std::uint64_t count;
        (void)!::read(fd_.get(), &count, sizeof count);
    }

private:
    static constexpr std::uint64_t kOne = 1;
    UniqueFd fd_;
};

/// Without the library the program would run and find the real devices of the machine.
/// @throws std::runtime_error
void require_preload_library() {
    void* const library = ::dlopen(kPreloadLibrary, RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): dlerror() is per thread in glibc.
        throw std::runtime_error(std::string(::dlerror()) + "; is the package umockdev installed?");
    }
    ::dlclose(library);
}

/// @param environment of this process before the bus was made
std::vector<std::string> child_environment(std::vector<std::string> environment,
                                           const std::string& root,
                                           const std::string& control_path) {
    // Libraries that are preloaded already stay first: the runtime of a sanitizer has to.
    std::string preload = kPreloadLibrary;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const old = std::getenv(kPreloadVariable);
    if (old != nullptr && *old != '\0') preload = old + (":" + preload);
    set_variable(environment, kPreloadVariable, preload);
    set_variable(environment, kTestbedVariable, root);
    set_variable(environment, kControlVariable, control_path);
    return environment;
}

/// Serves the bus until the child has ended.
class MainLoop {
public:
    MainLoop(Testbed& testbed, ControlServer& server, const Waker& waker, pid_t child)
        : testbed_(testbed),
          server_(server),
          waker_(waker),
          signals_(signal_descriptor()),
          child_(child) {}

    int run() {
        // The child may have ended before the signal descriptor existed.
        while (!child_ended()) {
            std::vector<pollfd> waits;
            waits.push_back({signals_.get(), POLLIN, 0});
            waits.push_back({waker_.fd(), POLLIN, 0});
            server_.add_to(waits);
            if (::poll(waits.data(), waits.size(), timeout()) < 0) {
                if (errno == EINTR) continue;
                throw std::system_error(errno, std::generic_category(), "poll");
            }
            waker_.drain();
            forward_signals();
            // Removes devices that disconnected themselves before a request plugs one in there.
            testbed_.service();
            server_.serve(waits);
            testbed_.service();
        }
        return status_;
    }

private:
    int timeout() const {
        const auto due = testbed_.next_due();
        if (!due) return -1;
        return static_cast<int>(std::clamp<Millis>(*due - now_ms(), 0, INT_MAX));
    }

    bool child_ended() {
        int status = 0;
        if (::waitpid(child_, &status, WNOHANG) != child_) return false;
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

    void forward_signals() const {
        signalfd_siginfo info{};
        while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
            const int number = static_cast<int>(info.ssi_signo);
            // The terminal has sent it to the child as well.
            if (number != SIGCHLD && info.ssi_code != SI_KERNEL) ::kill(child_, number);
        }
    }

    Testbed& testbed_;
    ControlServer& server_;
    const Waker& waker_;
    UniqueFd signals_;
    pid_t child_;
    int status_ = 0;
};

/// Ends and reaps the child when the simulator fails while it runs.
class ChildGuard {
public:
    explicit ChildGuard(pid_t child) : child_(child) {}
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;
    ~ChildGuard() {
        if (child_ <= 0) return;
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    void dismiss() { child_ = -1; }

private:
    pid_t child_;
};

/// Runs the program on a bus that ends with it. @param capture may be null
int run_captured(const RunOptions& options, BusCapture* capture) {
    const ProcessSettings before = take_over_process();
    const Waker waker;
    require_preload_library();
    const std::vector<std::string> own_environment = current_environment();
    Testbed testbed(
        options.time_scale, [&waker] { waker.wake(); }, capture);
    const std::string control_path = testbed.root() + "/control";
    ControlServer server(control_path, [&testbed](const std::string& line) {
        return run_control_request(testbed, line);
    });
    for (unsigned i = 0; i < options.devices; ++i) {
        testbed.plug(std::nullopt, {});
    }
    const auto environment = child_environment(own_environment, testbed.root(), control_path);
    const pid_t child = start_program(options.program, environment, before);
    ChildGuard guard(child);
    MainLoop loop(testbed, server, waker, child);
    const int status = loop.run();
    guard.dismiss();
    return status;
}

}  // namespace

int run_on_bus(const RunOptions& options) {
    try {
        if (!options.capture) return run_captured(options, nullptr);
        BusCapture capture(*options.capture);
        const int status = run_captured(options, &capture);
        if (const std::string fault = capture.fault(); !fault.empty())
            throw std::runtime_error(fault);
        return status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: %s\n", error.what());
        return kExitFailure;
    }
}

}  // namespace jovusim
