#include "safe_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "failure.h"

namespace jovu_cli {
namespace {

constexpr std::size_t buffer_size = 64U << 10U;
constexpr mode_t new_file_mode = 0666;
/// How long the reader of a pipe may read nothing.
constexpr std::chrono::milliseconds reader_patience{5000};

/// Waits until somebody reads a pipe.
/// @return false when nobody does in time; errno says so.
bool becomes_writable(int fd) noexcept {
    pollfd waited{fd, POLLOUT, 0};
    const int ready = poll(&waited, 1, static_cast<int>(reader_patience.count()));
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0 || (ready < 0 && errno == EINTR);
}

/// The file that a path leads to; the path itself when there is none yet.
std::string follow_links(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                           &std::free);
    return real ? real.get() : path;
}

}  // namespace

SafeFile::SafeFile(const std::string& path, Unfinished unfinished)
    : path_(path), unfinished_(unfinished) {
    struct stat info {};
    const bool exists = stat(path.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode)) {
        fail(EISDIR);
    }
    if (exists && !S_ISREG(info.st_mode)) {
        part_path_ = path;
        // Not waiting for ever for somebody to read a pipe: nothing could interrupt that.
        fd_ = FileDescriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    } else {
        final_path_ = follow_links(path);
        part_path_ = final_path_ + ".part";
        fd_ = FileDescriptor(
            open(part_path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, new_file_mode));
    }
    if (!fd_.valid()) {
        fail(errno);
    }
    if (exists && !final_path_.empty() && fchmod(fd_.get(), info.st_mode & 07777U) != 0) {
        fail(errno);
    }
}

SafeFile::~SafeFile() {
    if (final_path_.empty() || !fd_.valid()) {
        return;
    }
    flush();  // As far as it goes: whoever needs to know has been told.
    struct stat info {};
    const bool empty = fstat(fd_.get(), &info) == 0 && info.st_size == 0;
    if (empty || unfinished_ == Unfinished::remove) {
        unlink(part_path_.c_str());
    }
}

void SafeFile::write(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= buffer_size && !flush()) {
        fail(errno);
    }
}

void SafeFile::finish() {
    if (!flush()) {
        fail(errno);
    }
    if (final_path_.empty()) {
        return;
    }
    // Some errors of a file system show only here.
    if (fsync(fd_.get()) != 0 || std::rename(part_path_.c_str(), final_path_.c_str()) != 0) {
        fail(errno);
    }
    final_path_.clear();
}

/// @return false when not all could be written; errno says why.
bool SafeFile::flush() noexcept {
    std::size_t done = 0;
    while (done < buffer_.size()) {
        const ssize_t written = ::write(fd_.get(), buffer_.data() + done, buffer_.size() - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EAGAIN ? !becomes_writable(fd_.get()) : errno != EINTR) {
            break;
        }
    }
    const bool all = done == buffer_.size();
    buffer_.erase(0, done);
    return all;
}

void SafeFile::fail(int error) const {
    throw Failure(ExitCode::file_problem,
                  "cannot write " + path_ + ": " + std::generic_category().message(error));
}

}  // namespace jovu_cli
