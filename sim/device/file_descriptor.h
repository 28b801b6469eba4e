// SPDX-License-Identifier: Apache-2.0

/// @file
/// Ownership of file descriptors, and local stream sockets.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace jovusim {

/// Owns a file descriptor and closes it. Not thread-safe.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ != -1; }

    void reset(int fd = -1) {
        if (fd_ != -1) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

/// A stream socket that exec closes. @param flags SOCK_NONBLOCK or 0
/// @throws std::system_error
inline UniqueFd local_socket(int flags) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!fd) throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    return fd;
}

/// The address of a socket at a path. @throws std::system_error ENAMETOOLONG
inline sockaddr_un local_address(const std::string& path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

}  // namespace jovusim
