/// @file
/// Makes allocations slow, and so whatever allocates.
#pragma once

#include <atomic>
#include <chrono>

namespace test {

/// How long each allocation of this thread takes longer.
extern thread_local std::chrono::milliseconds allocation_delay;

/// Makes the allocations of threads slow that make their first one while this is set.
extern std::atomic<bool> new_threads_are_slow;

}  // namespace test
