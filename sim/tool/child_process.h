// SPDX-License-Identifier: Apache-2.0

/// @file
/// Running a program as a child of the simulator.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "device/file_descriptor.h"

namespace jovusim {

/// Settings of this process before take_over_process() changed them.
struct ProcessSettings {
    sigset_t signal_mask;
    struct sigaction pipe_action;
    std::optional<rlim_t> open_files;
};

/// Blocks the signals that end a program and SIGCHLD, which signal_descriptor() then reads, ignores
/// SIGPIPE, and raises the limit of open files. Returns the settings from before.
ProcessSettings take_over_process();

/// A descriptor that reads the signals that take_over_process() has blocked. @throws
/// std::system_error
UniqueFd signal_descriptor();

/// Starts the program. The kernel kills it when this process ends, so the calling thread must live
/// as long as the process.
/// @param program file and arguments; the file is looked up in PATH
/// @param environment "NAME=VALUE"
/// @throws std::system_error when fork() fails; a program that cannot be run ends with
///     kExitNotFound or kExitCannotRun
pid_t start_program(const std::vector<std::string>& program,
                    const std::vector<std::string>& environment, const ProcessSettings& settings);

/// The environment of this process.
std::vector<std::string> current_environment();

/// Sets a variable in an environment.
void set_variable(std::vector<std::string>& environment, const std::string& name,
                  const std::string& value);

/// Ends and reaps the child when the simulator fails while it runs.
class ChildGuard {
public:
    explicit ChildGuard(pid_t child) : child_(child) {}
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;
    ~ChildGuard();
    void dismiss() { child_ = -1; }

private:
    pid_t child_;
};

}  // namespace jovusim
