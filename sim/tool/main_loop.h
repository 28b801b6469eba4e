// SPDX-License-Identifier: Apache-2.0

/// @file
/// The main loop of the simulator.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>

#include "device/bus.h"
#include "device/file_descriptor.h"
#include "tool/control_socket.h"

namespace jovusim {

/// Wakes the main loop from any thread.
class Waker {
public:
    Waker();
    int fd() const { return fd_.get(); }
    void wake() const;
    void drain() const;

private:
    UniqueFd fd_;
};

/// Serves a bus and its control socket. The thread has called take_over_process().
class MainLoop {
public:
    MainLoop(Bus& bus, ControlServer& server, const Waker& waker);

    /// Serves until a program has ended, and forwards signals to it.
    /// @returns its exit status, or kExitSignalBase plus the signal that ended it
    int run(pid_t child);

    /// Serves until a signal arrives that ends a program.
    /// @returns kExitOk
    int run();

    /// Serves until a condition is true, at most for that time.
    /// @returns a signal that has arrived and ends a program, or nothing
    std::optional<int> serve_until(const std::function<bool()>& condition, Millis time);

private:
    bool serve(std::optional<Millis> deadline);
    int timeout(std::optional<Millis> deadline) const;
    bool child_ended(pid_t child);
    void forward_signals(pid_t child) const;
    std::optional<int> next_signal() const;

    Bus& bus_;
    ControlServer& server_;
    const Waker& waker_;
    UniqueFd signals_;
    int status_ = 0;
};

}  // namespace jovusim
