// SPDX-License-Identifier: Apache-2.0

/// @file
/// Owner of a file descriptor, and files that are used as a whole: input files, and output files
/// that are complete or absent.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace jovu_cli {

/// Owns one file descriptor, or none (-1), and closes it.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor() {
        if (fd_ != -1) {
            ::close(fd_);
        }
    }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ != -1; }

private:
    int fd_ = -1;
};

/// Opens a file for reading, without waiting for the writer of a named pipe.
/// @return an invalid descriptor when it cannot be opened; errno says why.
FileDescriptor open_for_reading(const std::string& path);

/// Checks that a file can be sent as a whole: a regular, readable file that is not empty.
/// @param verb the purpose, for the message "cannot VERB FILE".
/// @return its size in bytes.
/// @throws Failure file_problem.
std::uint64_t check_input_file(const std::string& path, const std::string& verb);

/// Writes a new file next to @p path and renames it when it is complete. The new file has a random
/// name and is created exclusively, so no other file is followed, overwritten or waited for.
///
/// A symbolic link is followed; the file that it names is replaced and its mode kept. An existing
/// file that is not regular, such as a device or a pipe, is written directly.
class AtomicFile {
public:
    /// What happens to a file that is not finished.
    enum class Unfinished : unsigned char {
        remove,
        keep,  ///< Under its temporary name, unless it is empty.
    };

    /// Opens the file for writing.
    /// @throws Failure file_problem, also for the names of standard output and standard error,
    ///     which carry results and messages.
    AtomicFile(const std::string& path, Unfinished unfinished);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    /// Appends bytes; they may be buffered.
    /// @throws Failure file_problem.
    void write(std::string_view bytes);

    /// The unfinished file's descriptor, for other programs to write to.
    int fd() const noexcept { return fd_.get(); }

    /// Completes the file and gives it its name.
    /// @throws Failure file_problem.
    void finish();

    /// The temporary name.
    const std::string& unfinished_path() const noexcept { return part_path_; }

private:
    void open_special(const struct stat& seen);
    void create_part(mode_t mode);
    bool flush() noexcept;
    [[noreturn]] void fail(int error, const std::string& hint = {}) const;

    const std::string path_;
    const Unfinished unfinished_;
    std::string final_path_;  ///< With links followed; empty when there is nothing to rename.
    std::string part_path_;
    FileDescriptor fd_;
    std::string buffer_;
};

}  // namespace jovu_cli
