/// @file
/// Ends a call that takes too long.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "file_descriptor.h"
#include "stop_source.h"

namespace jovu_cli {

/// While one of these lives, a call has so much time: then, or somewhat after the program has been
/// asked to end, a function is called that makes it return. As long as there are signs of life, the
/// call has more time, but not for ever.
class Watchdog {
public:
    struct Limits {
        std::chrono::milliseconds quiet;       ///< Without a sign of life.
        std::chrono::milliseconds after_stop;  ///< Likewise, once there is a reason to end.
        std::chrono::milliseconds at_most;     ///< In any case.
    };

    /// @param alive whether there was a sign of life since the last call.
    /// @param bite called once at most. Like @p alive it is called on a thread of its own and must
    ///     not throw.
    Watchdog(const StopSource& stop, Limits limits, std::function<bool()> alive,
             std::function<void()> bite);
    /// Waits for a running call.
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void watch(const StopSource& stop, Limits limits) const;

    std::function<bool()> alive_;
    std::function<void()> bite_;
    FileDescriptor done_;  ///< An eventfd.
    std::thread thread_;
};

}  // namespace jovu_cli
