// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program's exit codes, and the exception that ends a command with one of them.
#pragma once

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace jovu_cli {

/// The program's exit status.
enum class ExitCode : int {
    ok = 0,
    failure = 1,
    usage = 2,
    no_device = 3,
    several_devices = 4,
    exchange_failed = 5,
    device_refused = 6,
    file_problem = 7,
    timed_out = 8,
    fleet_failed = 21,    ///< One device of a fleet; see fleet_exit_code().
    interrupted = 130,    ///< 128 + SIGINT, as a shell reports it.
    output_closed = 141,  ///< 128 + SIGPIPE, as a shell reports it.
};

/// One row of the table of exit codes.
struct ExitCodeRow {
    ExitCode code;
    const char* meaning;  ///< For the help.
};

/// Every ExitCode once, in ascending order.
extern const std::array<ExitCodeRow, 12> kExitCodes;

/// @return the exit code for a number of failed devices: 20 more, at most 120.
ExitCode fleet_exit_code(std::size_t failed);

/// @return the table as a section of the help, one row a line.
std::string exit_code_help();

/// Ends the program with an exit code and one line on standard error.
class Failure : public std::runtime_error {
public:
    /// @param code the exit code.
    /// @param what "what happened: value", no final period. Empty: nothing is printed.
    /// @param hint what the user can do about it; empty for none.
    explicit Failure(ExitCode code, const std::string& what = {}, std::string hint = {})
        : std::runtime_error(what), code_(code), hint_(std::move(hint)) {}

    ExitCode code() const noexcept { return code_; }
    const std::string& hint() const noexcept { return hint_; }

private:
    ExitCode code_;
    std::string hint_;
};

}  // namespace jovu_cli
