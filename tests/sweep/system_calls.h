// SPDX-License-Identifier: Apache-2.0

/// @file
/// Memory, threads, files and time of the program: counted, failed, hurried.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace sweep {

/// Blocks from operator new that have not been freed. Everybody's, the test's own included.
inline std::atomic<long> live_blocks{0};

/// How far the calling thread's steady clock is ahead, in ns. What the library does by the clock is
/// then due sooner; no time point of the library goes from one thread to another.
inline thread_local std::int64_t ahead = 0;

/// How much longer an event wait counts than it takes: the fake's take 2 ms, for as long as nothing
/// happens. A scan of the bus comes five times as soon; and still no wait ends before events have
/// been handled as often as its length asks for, however slow the machine is.
inline constexpr std::int64_t kHurry = 8000000;  // ns

/// A file without a name.
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
File make_file();

/// @return the content of a file from @p offset on; its position stays as it is.
std::string read_from(int descriptor, off_t offset = 0);

}  // namespace sweep
