// SPDX-License-Identifier: Apache-2.0
#include "interruptible.h"

#include <pybind11/pybind11.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "gil.h"

namespace jovu_python {

namespace {

using Clock = std::chrono::steady_clock;
using Error = std::optional<pybind11::error_already_set>;

/// How often a waiting main thread looks for signals.
constexpr std::chrono::milliseconds kSignalPoll{50};

/// One call, shared by the thread that waits and the thread that works.
struct Run {
    std::function<void()> work;
    const void* owner = nullptr;  ///< See run_without_gil().

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex:
    bool done = false;
    bool refuses_callbacks = false;
    std::function<void()> callback;  ///< To be run by the waiting thread.
    std::exception_ptr failure;      ///< Of the work; belongs to the waiting thread once done.

    /// When the work runs on the calling thread: the GIL that it has released, and the exception of
    /// a callback.
    GilReleased* released = nullptr;
    Error* error = nullptr;

    /// The run that the waiting thread waits for as well: it has started this one in a callback or
    /// in a signal handler.
    Run* outer_wait = nullptr;

    /// Callbacks do nothing from now on, and call_back() waits for none.
    void refuse_callbacks() {
        const std::lock_guard<std::mutex> lock(mutex);
        refuses_callbacks = true;
        changed.notify_all();
    }

    void perform() {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();  // Thrown again by the waiting thread.
        }
    }
};

/// The run whose work this thread performs.
thread_local Run* current_run = nullptr;
/// The innermost run that this thread waits for.
thread_local Run* waited_run = nullptr;

/// The identifier of Python's main thread. Set at import.
unsigned long main_thread = 0;

/// Runs a Python callback. The caller has the GIL.
bool run_callback(const std::function<void()>& callback, Error& error) {
    try {
        callback();
        return true;
    } catch (pybind11::error_already_set& raised) {
        error.emplace(std::move(raised));
        return false;
    }
}

/// Threads that perform runs. Never destroyed: they may work when the process ends.
class HelperThreads {
public:
    static HelperThreads& instance() {
        // NOLINTNEXTLINE(bugprone-unused-return-value): owned by the process.
        static HelperThreads* const instance = std::make_unique<HelperThreads>().release();
        return *instance;
    }

    /// @throws std::system_error when no thread can be started.
    void start(std::shared_ptr<Run> run) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waiting_ <= runs_.size()) std::thread(&HelperThreads::serve, this).detach();
        runs_.push_back(std::move(run));
        changed_.notify_one();
    }

private:
    void serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            ++waiting_;
            changed_.wait(lock, [this] { return !runs_.empty(); });
            --waiting_;
            std::shared_ptr<Run> run = std::move(runs_.front());
            runs_.pop_front();
            lock.unlock();
            current_run = run.get();
            run->perform();
            current_run = nullptr;
            {
                const std::lock_guard<std::mutex> run_lock(run->mutex);
                run->done = true;
                run->changed.notify_all();
            }
            run.reset();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<Run>> runs_;
    std::size_t waiting_ = 0;
};

/// Waits for a run on a helper thread, and runs its callbacks and signal handlers meanwhile.
/// @return whether the work has ended; else it continues.
bool wait_for(Run& run, const OnInterrupt& on_interrupt, GilReleased& released, Error& error) {
    Error callback_error;
    std::optional<Clock::time_point> deadline;
    std::unique_lock<std::mutex> lock(run.mutex);
    for (;;) {
        run.changed.wait_for(lock, kSignalPoll, [&run] { return run.done || run.callback; });
        if (run.done || (deadline && Clock::now() >= *deadline)) break;
        // A copy: the work goes on meanwhile when the callback itself has callbacks refused.
        const std::function<void()> callback = run.callback;
        lock.unlock();
        released.acquire();
        bool interrupted = false;
        if (callback) {
            interrupted = !run_callback(callback, callback_error);
            if (interrupted) run.refuse_callbacks();
        } else if (PyErr_CheckSignals() != 0) {
            const bool again = deadline.has_value();
            error.emplace();
            interrupted = true;
            if (again) deadline = Clock::now();
        }
        released.release();
        if (interrupted && !deadline) {
            deadline = on_interrupt.patience == std::chrono::milliseconds::max()
                           ? Clock::time_point::max()
                           : Clock::now() + on_interrupt.patience;
            if (on_interrupt.request) on_interrupt.request();
        }
        lock.lock();
        if (callback) {
            run.callback = nullptr;
            run.changed.notify_all();
        }
    }
    const bool done = run.done;
    lock.unlock();
    if (!done) run.refuse_callbacks();
    released.acquire();
    if (!error && callback_error) error.emplace(std::move(*callback_error));
    return done;
}

}  // namespace

void remember_main_thread() {
    main_thread = pybind11::module_::import("threading")
                      .attr("main_thread")()
                      .attr("ident")
                      .cast<unsigned long>();
}

void run_without_gil(std::function<void()> work, const OnInterrupt& on_interrupt,
                     const void* owner) {
    require_own_process();
    const auto run = std::make_shared<Run>();
    run->work = std::move(work);
    run->owner = owner;
    Error error;
    bool done = true;
    if (PyThread_get_thread_ident() == main_thread) {
        GilReleased released;
        HelperThreads::instance().start(run);
        run->outer_wait = std::exchange(waited_run, run.get());
        done = wait_for(*run, on_interrupt, released, error);
        waited_run = run->outer_wait;
    } else {
        GilReleased released;
        run->released = &released;
        run->error = &error;
        Run* const outer = std::exchange(current_run, run.get());
        run->perform();
        current_run = outer;
    }
    if (error) throw pybind11::error_already_set(std::move(*error));
    if (done && run->failure) std::rethrow_exception(run->failure);
}

bool run_for(std::function<void()> work, std::chrono::milliseconds limit) {
    const auto run = std::make_shared<Run>();
    run->work = std::move(work);
    const GilReleased released;
    HelperThreads::instance().start(run);
    std::unique_lock<std::mutex> lock(run->mutex);
    return run->changed.wait_for(lock, limit, [&run] { return run->done; });
}

bool call_back(std::function<void()> function) {
    Run& run = *current_run;
    if (run.released != nullptr) {
        if (*run.error) return false;
        run.released->acquire();
        const bool worked = run_callback(function, *run.error);
        run.released->release();
        return worked;
    }
    std::unique_lock<std::mutex> lock(run.mutex);
    if (run.refuses_callbacks) return false;
    run.callback = std::move(function);
    run.changed.notify_all();
    run.changed.wait(lock, [&run] { return !run.callback || run.refuses_callbacks; });
    run.callback = nullptr;
    return !run.refuses_callbacks;
}

void refuse_callbacks(const void* owner) {
    for (Run* run = waited_run; run != nullptr; run = run->outer_wait) {
        if (run->owner == owner) run->refuse_callbacks();
    }
}

}  // namespace jovu_python
