// SPDX-License-Identifier: Apache-2.0

/// @file
/// The interpreter's global lock (GIL), acquired and released so that threads survive the end of
/// the interpreter.
///
/// An interpreter that ends terminates each other thread that asks for the GIL, also in the middle
/// of a call of Python, by unwinding its stack. That would run destructors which use Python objects
/// without the GIL, and handlers which must not swallow it. So whatever asks for the GIL is called
/// through call_until_exit(), with no such frame in between: the thread waits for the end of the
/// process instead. A handler of a C++ exception may not call it, since the C++ runtime ends the
/// process when an unwinding is caught there.
#pragma once

// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the interpreter's.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <cxxabi.h>

namespace jovu_python {

/// Waits for the end of the process.
[[noreturn]] void wait_for_exit() noexcept;

/// Calls a function that acquires the GIL, and has nothing to destroy when it does not return.
/// Never returns once the interpreter ends.
template <class Function>
auto call_until_exit(const Function& function) {
    try {
        return function();
    } catch (abi::__forced_unwind&) {
        wait_for_exit();  // Leaving this handler would end the process.
    }
}

/// Calls an object of Python; as PyObject_Call(). Never returns once the interpreter ends.
/// @param keywords a dictionary, or null.
/// @return a new reference; null when the object has raised an exception.
PyObject* call_python(PyObject* callable, PyObject* arguments, PyObject* keywords);

/// Releases the GIL for a scope. The thread has it before and after.
class GilReleased {
public:
    GilReleased() : state_(PyEval_SaveThread()) {}
    ~GilReleased() { acquire(); }
    GilReleased(const GilReleased&) = delete;
    GilReleased& operator=(const GilReleased&) = delete;

    /// Acquires the GIL before the end of the scope. Does nothing when the thread has it.
    void acquire() noexcept;
    /// Releases it again.
    void release() { state_ = PyEval_SaveThread(); }

private:
    PyThreadState* state_;
};

/// Acquires the GIL for a scope, on any thread.
class GilHeld {
public:
    GilHeld() noexcept;
    ~GilHeld() { PyGILState_Release(state_); }
    GilHeld(const GilHeld&) = delete;
    GilHeld& operator=(const GilHeld&) = delete;

private:
    PyGILState_STATE state_;
};

/// Whether this process was forked from one that had loaded the module: the threads of the library
/// exist in the parent only.
bool is_forked() noexcept;

/// @throws std::runtime_error in a forked process.
void require_own_process();

}  // namespace jovu_python
