// SPDX-License-Identifier: Apache-2.0
#include "tool/control_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "device/file_descriptor.h"
#include "tool/exit_status.h"

namespace jovusim {

namespace {

constexpr int kBacklog = 16;

/// Limit in bytes of a request and of unread responses; beyond it the connection is closed.
constexpr std::size_t kLongestRequest = 16U << 20U;

short events_of(const std::vector<pollfd>& waits, int fd) {
    for (const pollfd& wait : waits) {
        if (wait.fd == fd) return wait.revents;
    }
    return 0;
}

}  // namespace

ControlServer::ControlServer(const std::string& path,
                             std::function<std::string(const std::string&)> handler)
    : handler_(std::move(handler)),
      listener_(local_socket(SOCK_NONBLOCK)),
      spare_(local_socket(SOCK_NONBLOCK)) {
    const sockaddr_un address = local_address(path);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), kBacklog) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot listen at " + path);
    }
}

void ControlServer::add_to(std::vector<pollfd>& waits) const {
    waits.push_back({listener_.get(), POLLIN, 0});
    for (const Connection& connection : connections_) {
        const int in = connection.closing ? 0 : POLLIN;
        const int out = connection.out.empty() ? 0 : POLLOUT;
        waits.push_back({connection.fd.get(), static_cast<short>(in | out), 0});
    }
}

void ControlServer::serve(const std::vector<pollfd>& waits) {
    connections_.remove_if([&](Connection& connection) {
        return !serve(connection, events_of(waits, connection.fd.get()));
    });
    if (events_of(waits, listener_.get()) != 0) accept_all();
}

void ControlServer::accept_all() {
    for (;;) {
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) {
            // A client that waits keeps the listener readable, and polling it would not wait.
            if (errno == EMFILE || errno == ENFILE) {
                spare_.reset();
                UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
                spare_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            }
            return;
        }
        Connection connection;
        connection.fd = std::move(fd);
        connections_.push_back(std::move(connection));
    }
}

/// Returns false when the connection has ended.
bool ControlServer::serve(Connection& connection, short events) {
    if (events == 0) return true;
    if ((events & POLLERR) != 0) return false;
    if ((events & (POLLIN | POLLHUP)) != 0 && !connection.closing) {
        if (!read_some(connection)) return false;
        handle_lines(connection);
    }
    if (!write_some(connection)) return false;
    if (connection.in.size() > kLongestRequest || connection.out.size() > kLongestRequest) {
        return false;
    }
    return !(connection.closing && connection.out.empty());
}

bool ControlServer::read_some(Connection& connection) {
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t size =
            TEMP_FAILURE_RETRY(::recv(connection.fd.get(), buffer.data(), buffer.size(), 0));
        if (size > 0) {
            connection.in.append(buffer.data(), static_cast<std::size_t>(size));
            if (connection.in.size() > kLongestRequest) return true;
        } else if (size == 0) {
            connection.closing = true;
            return true;
        } else {
            return errno == EAGAIN;
        }
    }
}

void ControlServer::handle_lines(Connection& connection) {
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = connection.in.find('\n', begin);
        if (end == std::string::npos) break;
        std::string response = handler_(connection.in.substr(begin, end - begin));
        std::replace(response.begin(), response.end(), '\n', ' ');
        connection.out += response + '\n';
        begin = end + 1;
    }
    connection.in.erase(0, begin);
}

bool ControlServer::write_some(Connection& connection) const {
    while (!connection.out.empty()) {
        const ssize_t size = TEMP_FAILURE_RETRY(::send(connection.fd.get(), connection.out.data(),
                                                       connection.out.size(), MSG_NOSIGNAL));
        if (size == -1) return errno == EAGAIN;
        connection.out.erase(0, static_cast<std::size_t>(size));
    }
    return true;
}

namespace {

/// @throws std::system_error
std::string ask(const std::string& path, const std::string& line) {
    const UniqueFd fd = local_socket(0);
    const sockaddr_un address = local_address(path);
    const auto fail = [&path] {
        throw std::system_error(errno, std::generic_category(), "cannot reach jovu-sim at " + path);
    };
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail();
    }
    for (std::size_t sent = 0; sent < line.size();) {
        const ssize_t size = TEMP_FAILURE_RETRY(
            ::send(fd.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL));
        if (size == -1) fail();
        sent += static_cast<std::size_t>(size);
    }
    std::string response;
    std::array<char, 65536> buffer;
    while (response.find('\n') == std::string::npos) {
        const ssize_t size = TEMP_FAILURE_RETRY(::recv(fd.get(), buffer.data(), buffer.size(), 0));
        if (size == -1) fail();
        if (size == 0) break;
        response.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return response.substr(0, response.find('\n'));
}

}  // namespace

int run_control_client(const std::string& request) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the client has a single thread.
    const char* const path = std::getenv(kControlVariable);
    if (path == nullptr) {
        std::fprintf(stderr,
                     "jovu-sim: %s is not set: \"jovu-sim run\" sets it for its program, "
                     "\"attach\" and \"serve\" print it\n",
                     kControlVariable);
        return kExitUsage;
    }
    if (request.find('\n') != std::string::npos) {
        std::fprintf(stderr, "jovu-sim: a request must be a single line\n");
        return kExitUsage;
    }
    try {
        const std::string response = ask(path, request + '\n');
        std::printf("%s\n", response.c_str());
        return response == "ok" || response.rfind("ok ", 0) == 0 ? kExitOk : kExitRefused;
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "jovu-sim: %s\n", error.what());
        return kExitUsage;
    }
}

}  // namespace jovusim
