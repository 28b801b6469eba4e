// SPDX-License-Identifier: Apache-2.0
#include "simulator.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {

std::string control(const std::string& request) {
    const auto fail = [&](const std::string& why) {
        throw std::runtime_error("simulator request \"" + request + "\": " + why);
    };
    const char* const path = std::getenv("JOVU_SIM_CONTROL");
    if (path == nullptr)
        throw std::runtime_error("JOVU_SIM_CONTROL is not set; run it in jovu-sim run -- ...");
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path, sizeof name.sun_path - 1);
    struct Socket {
        ~Socket() { ::close(fd); }
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    } const socket;
    const std::string line = request + "\n";
    if (::connect(socket.fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
        ::send(socket.fd, line.data(), line.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(line.size())) {
        fail(std::strerror(errno));
    }
    std::string response;
    char buffer[4096];
    while (response.empty() || response.back() != '\n') {
        const ssize_t size = ::recv(socket.fd, buffer, sizeof buffer, 0);
        if (size <= 0) fail("no response");
        response.append(buffer, static_cast<std::size_t>(size));
    }
    response.pop_back();
    if (response.rfind("ok", 0) != 0) fail(response);
    return response.substr(std::min<std::size_t>(3, response.size()));
}

std::string to_string(Address address) {
    return std::to_string(address.bus) + ":" + std::to_string(address.address);
}

Address plug() {
    const std::string at = control("plug");
    unsigned bus = 0;
    unsigned address = 0;
    if (std::sscanf(at.c_str(), "%u:%u", &bus, &address) != 2)
        throw std::runtime_error("the simulator does not tell the address: " + at);
    return {static_cast<std::uint8_t>(bus), static_cast<std::uint8_t>(address)};
}

std::vector<Address> plug_anew(std::size_t count) {
    const std::string list = control("list");
    for (std::size_t at = 0; at < list.size();) {
        control("unplug " + list.substr(at, list.find(' ', at) - at));
        const std::size_t comma = list.find(", ", at);
        at = comma == std::string::npos ? list.size() : comma + 2;
    }
    std::vector<Address> plugged;
    while (plugged.size() < count)
        plugged.push_back(plug());
    return plugged;
}

bool push_verified(Address address) {
    return control("stats " + to_string(address)).find(R"("verified":true)") != std::string::npos;
}

}  // namespace bench
