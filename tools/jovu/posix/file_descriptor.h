/// @file
/// Owner of a file descriptor.
#pragma once

#include <unistd.h>

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

}  // namespace jovu_cli
