#include "tool/child_process.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "tool/exit_status.h"

namespace jovusim {

namespace {

std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> out;
    // exec() takes pointers to mutable text and leaves it alone.
    for (const std::string& text : texts)
        out.push_back(const_cast<char*>(text.c_str()));
    out.push_back(nullptr);
    return out;
}

void print(const char* text) {
    (void)!::write(STDERR_FILENO, text, std::strlen(text));
}

/// Between fork and exec: only calls that are safe there.
[[noreturn]] void become(char* const* arguments, char* const* environment,
                         const ProcessSettings& settings, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(kExitFailure);
    // The preloaded library sleeps for no time at all behind each ioctl, which lasts as long as the
    // timers of the program are inexact: usually 50 microseconds.
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    if (settings.open_files) {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = *settings.open_files;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ::sigaction(SIGPIPE, &settings.pipe_action, nullptr);
    ::sigprocmask(SIG_SETMASK, &settings.signal_mask, nullptr);
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

}  // namespace jovusim
