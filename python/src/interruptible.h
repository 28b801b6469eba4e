// SPDX-License-Identifier: Apache-2.0

/// @file
/// Calls of the library that a signal handler of Python, such as Ctrl-C, can end.
///
/// Python runs signal handlers on its main thread only. There a call of the library runs on a
/// helper thread, while the main thread waits for it and runs signal handlers. On other threads it
/// runs on the thread itself. The GIL is released in both cases.
#pragma once

#include <chrono>
#include <functional>

namespace jovu_python {

/// What to do when a signal handler raises an exception while the main thread waits.
struct OnInterrupt {
    /// Asks the work to end early; called once, without the GIL. May be empty.
    std::function<void()> request;
    /// How long to wait for the work to end then. After that, or after a second exception, the call
    /// returns and the work continues on the helper thread.
    std::chrono::milliseconds patience{0};
};

/// Finds out which thread is the main one. Called at import, with the GIL: later, in the middle of
/// a call, it would run code of Python.
void remember_main_thread();

/// Runs work and returns when it has ended, or been abandoned (see OnInterrupt). What the work uses
/// is owned by it, as it may outlive the call; it owns no Python objects. The caller has the GIL.
/// @param owner of the work, for refuse_callbacks().
/// @throws what the work has thrown; pybind11::error_already_set with the exception of a signal
///     handler, or of a function that call_back() has run.
void run_without_gil(std::function<void()> work, const OnInterrupt& on_interrupt = {},
                     const void* owner = nullptr);

/// Runs work on a helper thread and waits for it for a time. The caller has the GIL.
/// @return whether the work has ended; else it continues.
bool run_for(std::function<void()> work, std::chrono::milliseconds limit);

/// Called by work: runs a function with the GIL on the thread that called run_without_gil(), and
/// waits for it, or until callbacks are refused: the function owns what it uses. Does nothing once
/// callbacks are refused: when a function has thrown error_already_set, when the work has been
/// abandoned, and after refuse_callbacks().
/// @return whether the function ran without an exception.
bool call_back(std::function<void()> function);

/// Refuses the callbacks of all work of an owner for which the calling thread waits. This thread
/// may be in such a callback, or in a signal handler: before it waits for the end of that work, it
/// has to end the work's wait for the callback.
void refuse_callbacks(const void* owner);

}  // namespace jovu_python
