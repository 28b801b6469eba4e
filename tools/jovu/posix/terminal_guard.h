/// @file
/// Gives a terminal back in the state in which it was found, on every way out of the program.
#pragma once

namespace jovu_cli {

/// Restores the modes of a terminal that the program changes: at the end of its life, and before a
/// signal stops or kills the process. When the process goes on after a stop, the changed modes
/// return. At most one at a time. It handles SIGTSTP, SIGCONT and the signals that kill a process
/// and that StopSource does not take.
class TerminalGuard {
public:
    /// Remembers the modes as they are now, to restore them.
    /// @param fd must stay open. Does nothing when it is no terminal.
    explicit TerminalGuard(int fd);
    ~TerminalGuard();
    TerminalGuard(const TerminalGuard&) = delete;
    TerminalGuard& operator=(const TerminalGuard&) = delete;

    /// Remembers the modes as they are now, for the time after a stop. Not more than once.
    void keep_changed();

    /// Whether the process was stopped since the last call, and the screen may have changed. A
    /// poll(2) of the main thread ends with EINTR when the process goes on.
    static bool take_stopped() noexcept;
};

/// Restores the modes that a TerminalGuard remembers. For ways out of the process that run no
/// destructors. Any thread; async-signal-safe.
void restore_terminal() noexcept;

}  // namespace jovu_cli
