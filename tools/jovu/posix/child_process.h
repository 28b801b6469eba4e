// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs other programs, without a shell, and reads the environment.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace jovu_cli {

/// @return the value of an environment variable; empty when it is not set.
std::string environment(const char* name);

/// Finds a program as a shell does.
/// @return its path; nothing when no directory of PATH holds it.
std::optional<std::string> find_program(const std::string& name);

/// A descriptor of this process and its number in the other program.
struct PassedDescriptor {
    int ours;
    int theirs;
};

/// Runs a program to its end, in UTF-8 and with the numbers of no country. Signals that this
/// process blocks or ignores have their default effect in it, so Ctrl-C ends it.
/// @param path of the program, as find_program() returns it.
/// @param limit the program is killed after this time.
/// @return its exit status; 128 plus the signal's number when a signal ended it.
/// @throws std::system_error when it cannot be started.
int run_program(const std::string& path, const std::vector<std::string>& arguments,
                const std::vector<PassedDescriptor>& descriptors, std::chrono::milliseconds limit);

}  // namespace jovu_cli
