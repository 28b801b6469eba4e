#include "safe_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <random>
#include <string_view>
#include <system_error>

#include "failure.h"

namespace jovu_cli {
namespace {

constexpr std::size_t buffer_size = 64U << 10U;
constexpr mode_t new_file_mode = 0666;
/// Random characters in the name of an unfinished file.
constexpr std::size_t name_length = 10;
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
    return ready > 0 || errno == EINTR;
}

/// The path of an open file, with all links followed.
/// @return empty when it cannot be told; errno says why.
std::string path_of(const FileDescriptor& file) {
    const std::string link = "/proc/self/fd/" + std::to_string(file.get());
    char path[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    if (length == static_cast<ssize_t>(sizeof path)) {
        errno = ENAMETOOLONG;
        return "";
    }
    return length == -1 ? "" : std::string(path, static_cast<std::size_t>(length));
}

/// Letters and digits that cannot be foreseen.
std::string random_letters() {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device source;
    std::string text(name_length, ' ');
    for (char& letter : text) {
        letter = letters[source() % letters.size()];
    }
    return text;
}

/// Whether a path names this program's standard output or standard error. There the file would mix
/// with the results and the messages.
bool is_standard_stream(const std::string& path) {
    for (const char* name : {"/dev/stdout", "/dev/stderr", "/dev/fd/1", "/dev/fd/2",
                             "/proc/self/fd/1", "/proc/self/fd/2"}) {
        if (path == name) {
            return true;
        }
    }
    return false;
}

}  // namespace

SafeFile::SafeFile(const std::string& path, Unfinished unfinished)
    : path_(path), unfinished_(unfinished) {
    if (is_standard_stream(path)) {
        throw Failure(ExitCode::file_problem, "cannot write the file to " + path,
                      "it carries other text: name a file or a pipe");
    }
    // The kernel follows a link here, and refuses to where another user may have planted it.
    const FileDescriptor target(open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat info {};
    if (!target.valid()) {
        const int error = errno;
        if (error == ENOENT && lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
            fail(error, "it is a symbolic link that leads to no file");
        }
        if (error != ENOENT) {
            fail(error);
        }
        final_path_ = path;
        create_part(new_file_mode);
        return;
    }
    if (fstat(target.get(), &info) != 0) {
        fail(errno);
    }
    if (S_ISDIR(info.st_mode)) {
        fail(EISDIR);
    }
    if (!S_ISREG(info.st_mode)) {
        open_special(info);
        return;
    }
    final_path_ = path_of(target);
    // Renaming needs no such permission, but would fail when all is written, or replace what is
    // protected.
    if (final_path_.empty() || access(path.c_str(), W_OK) != 0) {
        fail(errno);
    }
    const mode_t mode = info.st_mode & 0777U;
    create_part(mode);
    // The process's mask may have taken bits away.
    if (fstat(fd_.get(), &info) != 0 ||
        ((info.st_mode & 0777U) != mode && fchmod(fd_.get(), mode) != 0)) {
        const int error = errno;
        unlink(part_path_.c_str());
        fail(error);
    }
}

/// Opens what is no regular file.
/// @param seen what the path led to.
void SafeFile::open_special(const struct stat& seen) {
    part_path_ = path_;
    // Not waiting for ever for somebody to read a pipe: nothing could interrupt that.
    fd_ = FileDescriptor(open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    struct stat opened {};
    if (!fd_.valid() || fstat(fd_.get(), &opened) != 0) {
        fail(errno, errno == ENXIO ? "no program reads from it" : "");
    }
    if (opened.st_dev != seen.st_dev || opened.st_ino != seen.st_ino) {
        fail(ESTALE);
    }
}

/// Creates the file that is renamed in the end.
/// @param mode as open() takes it.
void SafeFile::create_part(mode_t mode) {
    do {
        part_path_ = final_path_ + "." + random_letters() + ".part";
        fd_ = FileDescriptor(
            open(part_path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    } while (!fd_.valid() && errno == EEXIST);
    if (!fd_.valid()) {
        fail(errno);
    }
}

SafeFile::~SafeFile() {
    if (final_path_.empty() || !fd_.valid()) {
        return;
    }
    flush();  // Best effort; errors were reported earlier.
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
        if (written != -1) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EAGAIN ? !becomes_writable(fd_.get()) : errno != EINTR) {
            break;
        }
    }
    const bool all = done == buffer_.size();
    buffer_.erase(0, done);
    return all;
}

void SafeFile::fail(int error, const std::string& hint) const {
    throw Failure(ExitCode::file_problem,
                  "cannot write " + path_ + ": " + std::generic_category().message(error), hint);
}

}  // namespace jovu_cli
