// SPDX-License-Identifier: Apache-2.0
#include "posix/files.h"

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

#include "cli/failure.h"

namespace jovu_cli {
namespace {

constexpr std::size_t kBufferSize = 64U << 10U;
constexpr mode_t kNewFileMode = 0666;
/// Random characters in the name of an unfinished file.
constexpr std::size_t kNameLength = 10;
/// How long the reader of a pipe may take to read more.
constexpr std::chrono::milliseconds kReaderLimit{5000};

/// Waits until a pipe is writable.
/// @return false after kReaderLimit; errno is set.
bool becomes_writable(int fd) noexcept {
    pollfd waited{fd, POLLOUT, 0};
    const int ready = poll(&waited, 1, static_cast<int>(kReaderLimit.count()));
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0 || errno == EINTR;
}

/// The path of an open file, with all links followed.
/// @return empty on failure; errno says why.
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

/// @return letters and digits that cannot be predicted.
std::string random_name() {
    constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device source;
    std::string name(kNameLength, ' ');
    for (char& letter : name) {
        letter = kLetters[source() % kLetters.size()];
    }
    return name;
}

/// Whether a path names this program's standard output or standard error, which carry results and
/// messages.
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

AtomicFile::AtomicFile(const std::string& path, Unfinished unfinished)
    : path_(path), unfinished_(unfinished) {
    if (is_standard_stream(path)) {
        throw Failure(ExitCode::file_problem, "cannot write the file to " + path,
                      "it carries results and messages: name a file or a pipe");
    }
    // The kernel follows a link here, unless another user may have created it.
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
        create_part(kNewFileMode);
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
    // Renaming needs no write permission, but would replace a protected file.
    if (final_path_.empty() || access(path.c_str(), W_OK) != 0) {
        fail(errno);
    }
    const mode_t mode = info.st_mode & 0777U;
    create_part(mode);
    // The umask may have removed bits.
    if (fstat(fd_.get(), &info) != 0 ||
        ((info.st_mode & 0777U) != mode && fchmod(fd_.get(), mode) != 0)) {
        const int error = errno;
        unlink(part_path_.c_str());
        fail(error);
    }
}

/// Opens a file that is not regular.
/// @param seen the file that the path named before.
void AtomicFile::open_special(const struct stat& seen) {
    part_path_ = path_;
    // Without O_NONBLOCK opening a pipe would wait for a reader, and no signal could end the wait.
    fd_ = FileDescriptor(open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    struct stat opened {};
    if (!fd_.valid() || fstat(fd_.get(), &opened) != 0) {
        fail(errno, errno == ENXIO ? "no program reads from it" : "");
    }
    if (opened.st_dev != seen.st_dev || opened.st_ino != seen.st_ino) {
        fail(ESTALE);
    }
}

/// Creates the file that finish() renames.
/// @param mode as open() takes it.
void AtomicFile::create_part(mode_t mode) {
    do {
        part_path_ = final_path_ + "." + random_name() + ".part";
        fd_ = FileDescriptor(
            open(part_path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    } while (!fd_.valid() && errno == EEXIST);
    if (!fd_.valid()) {
        fail(errno);
    }
}

AtomicFile::~AtomicFile() {
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

void AtomicFile::write(std::string_view bytes) {
    buffer_ += bytes;
    if (buffer_.size() >= kBufferSize && !flush()) {
        fail(errno);
    }
}

void AtomicFile::finish() {
    if (!flush()) {
        fail(errno);
    }
    if (final_path_.empty()) {
        return;
    }
    // Some file systems report errors only here.
    if (fsync(fd_.get()) != 0 || std::rename(part_path_.c_str(), final_path_.c_str()) != 0) {
        fail(errno);
    }
    final_path_.clear();
}

/// @return false when not all bytes were written; errno says why.
bool AtomicFile::flush() noexcept {
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

void AtomicFile::fail(int error, const std::string& hint) const {
    throw Failure(ExitCode::file_problem,
                  "cannot write " + path_ + ": " + std::generic_category().message(error), hint);
}

namespace {}  // namespace

FileDescriptor open_for_reading(const std::string& path) {
    // Without O_NONBLOCK opening a named pipe would wait for its writer.
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

std::uint64_t check_input_file(const std::string& path, const std::string& verb) {
    const auto refuse = [&](const std::string& why) {
        throw Failure(ExitCode::file_problem, "cannot " + verb + " " + path + ": " + why);
    };
    const FileDescriptor file = open_for_reading(path);
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0) {
        refuse(std::generic_category().message(errno));
    }
    if (S_ISDIR(info.st_mode)) {
        refuse("it is a directory");
    }
    if (!S_ISREG(info.st_mode)) {
        refuse("it is not a regular file");
    }
    if (info.st_size == 0) {
        refuse("it is empty");
    }
    return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace jovu_cli
