/// @file
/// How a command ends when it does not succeed.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "exit_codes.h"

namespace jovu_cli {

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

/// Prints the line of a failure on standard error, if it has one.
void print_failure(const Failure& failure);

}  // namespace jovu_cli
