// SPDX-License-Identifier: Apache-2.0

/// @file
/// The bridge's log: lines on standard error, as the journal of the system reads them.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <string_view>

#include "posix/mutex.h"

namespace jovu_bridge {

/// How severe a line is; the numbers are those of syslog.
enum class LogLevel : unsigned char { error = 3, warning = 4, info = 6, debug = 7 };

/// Writes one line for each event. Control characters are escaped, so that no value of a message
/// or a device can forge a line. Lines that repeat, apart from their numbers, are limited to
/// kBurst in kWindow; how many were left out is logged later. Callers pass no secrets.
///
/// Threads: any. Writing blocks while the reader of standard error is slow, as for every service.
class Log {
public:
    static constexpr unsigned kBurst = 5;
    static constexpr std::chrono::seconds kWindow{30};

    /// @param fd where lines go; the caller's, and open as long as this object exists.
    /// @param priorities whether each line begins with its level as "<6>", for journald.
    Log(int fd, bool priorities) : fd_(fd), priorities_(priorities) {}
    /// Logs what was left out.
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    /// Whether standard error goes to the journal of the system: JOURNAL_STREAM names it.
    static bool to_journal();

    /// Sets the least severe level that is logged; at first info.
    void set_level(LogLevel level);

    /// @param text one line or more; line feeds are escaped. At most 4 KiB of it are logged.
    void write(LogLevel level, std::string_view text);

    void error(std::string_view text) { write(LogLevel::error, text); }
    void warning(std::string_view text) { write(LogLevel::warning, text); }
    void info(std::string_view text) { write(LogLevel::info, text); }
    void debug(std::string_view text) { write(LogLevel::debug, text); }

private:
    using Clock = std::chrono::steady_clock;
    struct Repeats {
        Clock::time_point first;
        LogLevel level = LogLevel::info;
        unsigned count = 0;
        std::string last;  ///< Of those left out.
    };

    void put(LogLevel level, std::string_view text) const noexcept;
    void end_repeats(Clock::time_point until) JOVU_REQUIRES(mutex_);

    const int fd_;
    const bool priorities_;
    jovu_cli::Mutex mutex_;
    LogLevel level_ JOVU_GUARDED_BY(mutex_) = LogLevel::info;
    /// By the text without its numbers; at most kMostKinds.
    std::map<std::string, Repeats> repeats_ JOVU_GUARDED_BY(mutex_);
};

/// Sends the library's diagnostic lines to a log, which must outlive it. At most one may exist.
class LibraryLog {
public:
    explicit LibraryLog(Log& log);
    ~LibraryLog();
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;
};

}  // namespace jovu_bridge
