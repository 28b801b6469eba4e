// SPDX-License-Identifier: Apache-2.0
#include "bus/ioctl_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace jovusim {

namespace {

// Messages of the preloaded library: three 64-bit words, followed by data for some types.
enum Message : std::uint64_t {
    kIoctl = 1,     // code, argument; sent by the library, all others by the simulator
    kDone = 3,      // result, errno
    kReadMem = 5,   // address, size; the library responds with that many bytes
    kWriteMem = 6,  // address, size; that many bytes follow
};

struct Header {
    std::uint64_t type;
    std::uint64_t first;
    std::uint64_t second;
};

}  // namespace

std::optional<IoctlLink::Request> IoctlLink::next() {
    Header header{};
    if (!receive(&header, sizeof header) || header.type != kIoctl) return std::nullopt;
    return Request{header.first, header.second};
}

bool IoctlLink::read(std::uint64_t address, void* to, std::size_t size) {
    append(kReadMem, address, size);
    flush();
    return receive(to, size);
}

void IoctlLink::write(std::uint64_t address, const void* from, std::size_t size) {
    if (size == 0) return;
    append(kWriteMem, address, size);
    out_.append(static_cast<const char*>(from), size);
}

void IoctlLink::complete(int error) {
    append(kDone, error == 0 ? 0 : static_cast<std::uint64_t>(-1),
           static_cast<std::uint64_t>(error));
    flush();
}

void IoctlLink::hang_up() {
    ::shutdown(socket_.get(), SHUT_RDWR);
}

void IoctlLink::append(std::uint64_t type, std::uint64_t first, std::uint64_t second) {
    const Header header{type, first, second};
    out_.append(reinterpret_cast<const char*>(&header), sizeof header);
}

bool IoctlLink::receive(void* to, std::size_t size) {
    char* at = static_cast<char*>(to);
    while (size > 0) {
        const ssize_t got = TEMP_FAILURE_RETRY(::recv(socket_.get(), at, size, 0));
        if (got <= 0) return false;
        at += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

/// Ignores errors: when the program has ended, the next receive fails.
void IoctlLink::flush() {
    const std::string bytes = std::exchange(out_, {});
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t sent = TEMP_FAILURE_RETRY(
            ::send(socket_.get(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL));
        if (sent == -1) return;
        at += static_cast<std::size_t>(sent);
    }
}

}  // namespace jovusim
