// SPDX-License-Identifier: Apache-2.0
#include "posix/child_process.h"

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <system_error>

#include "posix/files.h"

namespace jovu_cli {
namespace {

void check(int error, const char* what) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), what);
    }
}

struct Actions {
    Actions() { check(posix_spawn_file_actions_init(&value), "posix_spawn_file_actions_init"); }
    ~Actions() { posix_spawn_file_actions_destroy(&value); }
    Actions(const Actions&) = delete;
    Actions& operator=(const Actions&) = delete;
    posix_spawn_file_actions_t value{};
};

struct Attributes {
    Attributes() { check(posix_spawnattr_init(&value), "posix_spawnattr_init"); }
    ~Attributes() { posix_spawnattr_destroy(&value); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    posix_spawnattr_t value{};
};

void reset_signals(posix_spawnattr_t& attributes) {
    sigset_t set;
    sigemptyset(&set);
    check(posix_spawnattr_setsigmask(&attributes, &set), "posix_spawnattr_setsigmask");
    sigaddset(&set, SIGPIPE);
    sigaddset(&set, SIGXFSZ);
    check(posix_spawnattr_setsigdefault(&attributes, &set), "posix_spawnattr_setsigdefault");
    check(posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
          "posix_spawnattr_setflags");
}

/// Waits for the end of a process and kills it when the limit has passed.
int wait_for_end(pid_t pid, std::chrono::milliseconds limit) {
    const FileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (process.valid()) {
        pollfd waited{process.get(), POLLIN, 0};
        const auto end = std::chrono::steady_clock::now() + limit;
        for (auto left = limit; left.count() > 0;) {
            if (poll(&waited, 1, static_cast<int>(left.count())) > 0) {
                break;
            }
            left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
        }
        if (waited.revents == 0) {
            kill(pid, SIGKILL);
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string environment(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread of the program changes the environment.
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::optional<std::string> find_program(const std::string& name) {
    std::istringstream directories(environment("PATH"));
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string program = (directory.empty() ? "." : directory) + "/" + name;
        if (access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return std::nullopt;
}

int run_program(const std::string& path, const std::vector<std::string>& arguments,
                const std::vector<PassedDescriptor>& descriptors, std::chrono::milliseconds limit) {
    Actions actions;
    for (const PassedDescriptor& passed : descriptors) {
        check(posix_spawn_file_actions_adddup2(&actions.value, passed.ours, passed.theirs),
              "posix_spawn_file_actions_adddup2");
    }
    Attributes attributes;
    reset_signals(attributes.value);
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    std::string locale = "LC_ALL=C.UTF-8";
    std::vector<char*> variables{locale.data()};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "LC_ALL=", std::strlen("LC_ALL=")) != 0) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    pid_t pid = -1;
    check(posix_spawn(&pid, path.c_str(), &actions.value, &attributes.value, argv.data(),
                      variables.data()),
          path.c_str());
    return wait_for_end(pid, limit);
}

}  // namespace jovu_cli
