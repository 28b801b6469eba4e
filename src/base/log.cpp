// SPDX-License-Identifier: Apache-2.0
#include "base/log.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "base/never_destroyed.h"

namespace jovu {
namespace {

/// Never destroyed: the watcher may report an error until the process has ended.
struct LogState {
    Mutex mutex;  ///< A leaf.
    /// Null for standard output. Shared with the calls in progress.
    std::shared_ptr<const JovuLogHandler> handler JOVU_GUARDED_BY(mutex);
};

LogState& log_state() {
    static NeverDestroyed<LogState> state;
    return state.get();
}

std::shared_ptr<const JovuLogHandler> current_handler() {
    LogState& state = log_state();
    const MutexLock lock(state.mutex);
    return state.handler;
}

std::string formatted(const char* format, std::va_list arguments) {
    std::va_list measured;
    va_copy(measured, arguments);
    // clang-tidy takes a list for uninitialized in every file of a run but the first.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): as above.
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

/// @return false when the line has still to be printed.
bool hand_over(JovuLogLevel level, std::optional<JovuDeviceAddress> device, const char* format,
               std::va_list arguments) noexcept {
    const std::shared_ptr<const JovuLogHandler> handler = current_handler();
    if (handler == nullptr) return false;
    try {
        (*handler)(level, device, formatted(format, arguments));
        return true;
    } catch (...) {
        // The handler may throw anything, and memory may be exhausted. The line is not lost.
        return false;
    }
}

}  // namespace

void log(JovuLogLevel level, std::optional<JovuDeviceAddress> device, const char* format,
         ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    const bool handed_over = hand_over(level, device, format, arguments);
    va_end(arguments);
    if (handed_over) return;
    flockfile(stdout);  // Lines of several threads do not mix.
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): as above.
    std::vfprintf(stdout, format, arguments);
    va_end(arguments);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    funlockfile(stdout);
}

}  // namespace jovu

void jovu_set_log_handler(JovuLogHandler handler) {
    auto next = handler ? std::make_shared<const JovuLogHandler>(std::move(handler)) : nullptr;
    jovu::LogState& state = jovu::log_state();
    const jovu::MutexLock lock(state.mutex);
    // The previous handler is destroyed by `next`, after the lock has been released.
    state.handler.swap(next);
}
