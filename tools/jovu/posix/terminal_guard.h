// SPDX-License-Identifier: Apache-2.0

/// @file
/// Restores the terminal's modes on every exit of the program.
#pragma once

#include <string_view>

namespace jovu_cli {

/// Restores the modes of a terminal that the program changes: on destruction, and before a signal
/// stops or kills the process. Sets the changed modes again when the process continues after a
/// stop. At most one may exist. Handles SIGTSTP, SIGCONT and the killing signals that StopSource
/// does not handle.
class TerminalGuard {
public:
    /// Saves the present modes as the ones to restore.
    /// @param fd must stay open. Does nothing when it is not a terminal.
    explicit TerminalGuard(int fd);
    ~TerminalGuard();
    TerminalGuard(const TerminalGuard&) = delete;
    TerminalGuard& operator=(const TerminalGuard&) = delete;

    /// Saves the present modes as the ones to set after a stop. At most once.
    void keep_changed();

    /// Sets what is written to the terminal when its modes are restored and when they are set
    /// again, such as the strings that leave and enter an alternate screen. Empty for nothing.
    /// @throws std::length_error beyond 256 bytes.
    void set_strings(std::string_view on_restore, std::string_view on_return);

    /// Whether the process may use the terminal: it is not in the background.
    static bool may_use() noexcept;

    /// Whether the process was stopped since the last call, so that the screen may have changed. A
    /// poll(2) of the main thread returns EINTR when the process continues.
    static bool take_stopped() noexcept;
};

/// Restores the modes that a TerminalGuard saved. For exits of the process that run no destructors.
/// Any thread; async-signal-safe.
void restore_terminal() noexcept;

}  // namespace jovu_cli
