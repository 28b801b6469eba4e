/// @file
/// The clock of the simulated bus.
#pragma once

#include <chrono>

#include "firmware/types.h"

namespace jovusim {

/// Milliseconds since an arbitrary moment. Any thread.
inline Millis now_ms() {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace jovusim
