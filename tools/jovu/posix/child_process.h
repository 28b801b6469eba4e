/// @file
/// Other programs, run without a shell.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace jovu_cli {

/// Looks for a program as a shell does.
/// @return its path; nothing when no directory of PATH holds it.
std::optional<std::string> find_program(const std::string& name);

/// Which descriptors a program gets as which: {ours, theirs}.
struct PassedDescriptor {
    int ours;
    int theirs;
};

/// Runs a program to its end. It starts with no signal blocked or ignored that this program has
/// blocked or ignored, so it can be interrupted by itself.
/// @param path of the program, as find_program() returns it.
/// @param limit it is killed after that time.
/// @return its exit status; 128 and the signal's number when a signal ended it.
/// @throws std::system_error when it cannot be started.
int run_program(const std::string& path, const std::vector<std::string>& arguments,
                const std::vector<PassedDescriptor>& descriptors, std::chrono::milliseconds limit);

}  // namespace jovu_cli
