// SPDX-License-Identifier: Apache-2.0
#include "gil.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

namespace jovu_python {

namespace {

std::atomic<bool> forked{false};

/// A call of the library may return after the interpreter has ended, which leaves no lock to
/// acquire.
void require_interpreter() noexcept {
    if (Py_IsInitialized() == 0) wait_for_exit();
}

}  // namespace

void wait_for_exit() noexcept {
    for (;;)
        pause();
}

PyObject* call_python(PyObject* callable, PyObject* arguments, PyObject* keywords) {
    return call_until_exit([=] { return PyObject_Call(callable, arguments, keywords); });
}

void GilReleased::acquire() noexcept {
    if (state_ == nullptr) return;
    require_interpreter();
    call_until_exit([this] { PyEval_RestoreThread(state_); });
    state_ = nullptr;
}

GilHeld::GilHeld() noexcept
    : state_(call_until_exit([] {
          require_interpreter();
          return PyGILState_Ensure();
      })) {}

bool is_forked() noexcept {
    static const int watched = pthread_atfork(nullptr, nullptr, [] { forked = true; });
    return watched == 0 && forked;
}

void require_own_process() {
    if (is_forked()) {
        throw std::runtime_error(
            "jovu cannot be used in a process that os.fork() has made after the import: start "
            "processes with the method \"spawn\".");
    }
}

}  // namespace jovu_python
