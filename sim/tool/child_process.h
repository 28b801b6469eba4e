/// @file
/// The program that runs on the simulated bus.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace jovusim {

/// What a new program is to find as it was before the simulator changed it.
struct ProcessSettings {
    sigset_t signal_mask;
    struct sigaction pipe_action;
    std::optional<rlim_t> open_files;
};

/// Starts the program. It dies with this process. To be called on a thread that lives as long as
/// the process.
/// @param program file and arguments; the file is looked up in PATH
/// @param environment "NAME=VALUE"
/// @throws std::system_error when there can be no process; a program that cannot be run ends with
///     kExitNotFound or kExitCannotRun
pid_t start_program(const std::vector<std::string>& program,
                    const std::vector<std::string>& environment, const ProcessSettings& settings);

/// The environment of this process with a variable set.
void set_variable(std::vector<std::string>& environment, const std::string& name,
                  const std::string& value);
std::vector<std::string> current_environment();

}  // namespace jovusim
