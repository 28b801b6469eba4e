/// @file
/// Memory, threads, files and time of the program: counted, failed, hurried.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
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

/// A file in memory.
class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int descriptor() const { return descriptor_; }

private:
    const int descriptor_;
};

/// @return the content of a file from @p offset on; its position stays as it is.
std::string read_from(int descriptor, off_t offset = 0);

}  // namespace sweep
