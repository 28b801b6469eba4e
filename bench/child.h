// SPDX-License-Identifier: Apache-2.0

/// @file
/// Measurements in a process of their own, which take turns with those of another one.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>

namespace bench {

/// The child process's side.
class Turn {
public:
    explicit Turn(int socket) : socket_(socket) {}

    /// Ends the preparation, or the turn in progress, and waits for the next turn.
    /// @return always true; the process is killed when there are no more turns.
    bool next();

    /// Reports one figure of the turn in progress.
    void report(const std::string& measure, double value);

private:
    const int socket_;
};

using Figures = std::map<std::string, double>;  ///< Of one turn, by measure.

/// A child process, killed when this object is destroyed or the parent process ends.
class Child {
public:
    /// Starts the process and waits until it is prepared. To be called while this process has one
    /// thread.
    /// @param body prepares, and measures after each call of Turn::next() that returns.
    /// @throws std::runtime_error when the body ends or takes more than a minute, as turn() does.
    explicit Child(const std::function<void(Turn&)>& body);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    Figures turn();

private:
    Figures wait();
    void end() noexcept;

    int socket_ = -1;
    pid_t process_ = -1;
};

}  // namespace bench
