// SPDX-License-Identifier: Apache-2.0
#include "bridge/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "jovu/log.h"
#include "posix/child_process.h"
#include "terminal/printable.h"

namespace jovu_bridge {
namespace {

constexpr std::size_t kMaxLine = 4096;
constexpr std::size_t kMostKinds = 256;

/// The text with each run of digits replaced, so that lines about the same are alike.
std::string without_numbers(std::string_view text) {
    std::string kind;
    for (const char letter : text) {
        const bool digit = std::isdigit(static_cast<unsigned char>(letter)) != 0;
        if (!digit) {
            kind += letter;
        } else if (kind.empty() || kind.back() != '#') {
            kind += '#';
        }
    }
    return kind;
}

LogLevel level_of(JovuLogLevel level) {
    return level == JovuLogLevel::warning ? LogLevel::warning : LogLevel::error;
}

}  // namespace

Log::~Log() {
    const jovu_cli::MutexLock lock(mutex_);
    end_repeats(Clock::time_point::max());
}

bool Log::to_journal() {
    // JOURNAL_STREAM is DEVICE:INODE of the stream that the service manager passed; a standard
    // error that was redirected since is another one.
    struct stat seen {};
    return ::fstat(STDERR_FILENO, &seen) == 0 &&
           jovu_cli::environment("JOURNAL_STREAM") ==
               std::to_string(seen.st_dev) + ":" + std::to_string(seen.st_ino);
}

void Log::set_level(LogLevel level) {
    const jovu_cli::MutexLock lock(mutex_);
    level_ = level;
}

void Log::write(LogLevel level, std::string_view text) {
    const Clock::time_point now = Clock::now();
    std::string line = jovu_cli::printable(text.substr(0, kMaxLine));
    const jovu_cli::MutexLock lock(mutex_);
    if (level > level_) {
        return;
    }
    end_repeats(now - kWindow);
    if (repeats_.size() >= kMostKinds) {
        end_repeats(Clock::time_point::max());
    }
    Repeats& repeats = repeats_[without_numbers(line)];
    if (repeats.count == 0) {
        repeats.first = now;
        repeats.level = level;
    }
    if (++repeats.count <= kBurst) {
        put(level, line);
    } else {
        repeats.last = std::move(line);
    }
}

/// Forgets the kinds of lines that began at @p until or before, and logs how many were left out.
void Log::end_repeats(Clock::time_point until) {
    for (auto kind = repeats_.begin(); kind != repeats_.end();) {
        const Repeats& repeats = kind->second;
        if (repeats.first > until) {
            ++kind;
            continue;
        }
        if (repeats.count > kBurst) {
            put(repeats.level, std::to_string(repeats.count - kBurst) +
                                   " more lines like this one were left out: " + repeats.last);
        }
        kind = repeats_.erase(kind);
    }
}

/// One write(2), so that lines of several processes do not mix. A line that cannot be written is
/// lost: there is nowhere to report that.
void Log::put(LogLevel level, std::string_view text) const noexcept {
    char priority[8] = "";
    if (priorities_) {
        static_cast<void>(
            std::snprintf(priority, sizeof priority, "<%u>", static_cast<unsigned>(level)));
    }
    std::string line;
    try {
        line.append(priority).append(text).append("\n");
    } catch (const std::bad_alloc&) {
        return;
    }
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t count = ::write(fd_, line.data() + sent, line.size() - sent);
        if (count > 0) {
            sent += static_cast<std::size_t>(count);
        } else if (count == -1 && errno != EINTR) {
            return;
        }
    }
}

LibraryLog::LibraryLog(Log& log) {
    jovu_set_log_handler([&log](JovuLogLevel level, std::optional<JovuDeviceAddress> device,
                                const std::string& text) {
        std::string line = text;
        if (device) {
            line.insert(0,
                        std::to_string(device->bus) + ":" + std::to_string(device->address) + ": ");
        }
        log.write(level_of(level), line);
    });
}

LibraryLog::~LibraryLog() {
    jovu_set_log_handler({});
}

}  // namespace jovu_bridge
