// SPDX-License-Identifier: Apache-2.0
#include "simulator.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <thread>
#include <utility>

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

namespace {

constexpr int kTries = 1000;  ///< Of 10 ms each, for the kernel.

std::map<std::string, Address>& addresses() {
    static std::map<std::string, Address> all;
    return all;
}

bool parse(const std::string& text, Address& address) {
    unsigned bus = 0;
    unsigned number = 0;
    if (std::sscanf(text.c_str(), "%u:%u", &bus, &number) != 2 || number == 0) return false;
    address = {static_cast<std::uint8_t>(bus), static_cast<std::uint8_t>(number)};
    return true;
}

/// The address of a device that requests name by its port.
bool find_address(const std::string& port, Address& address) {
    const std::string list = control("list");
    const std::size_t entry = (", " + list).find(", " + port + " ");
    if (entry == std::string::npos) return false;
    const std::string key = " address=";
    const std::size_t at = list.find(key, entry);
    return at < list.find(", ", entry) && parse(list.substr(at + key.size()), address) &&
           std::filesystem::exists("/sys/bus/usb/devices/" + port + ":1.1");
}

void unplug_all() {
    const std::string list = control("list");
    for (std::size_t at = 0; at < list.size();) {
        const std::string name = list.substr(at, list.find(' ', at) - at);
        control("unplug " + name);
        for (int i = 0; i < kTries && std::filesystem::exists("/sys/bus/usb/devices/" + name); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const std::size_t comma = list.find(", ", at);
        at = comma == std::string::npos ? list.size() : comma + 2;
    }
    addresses().clear();
}

}  // namespace

std::string name_of(Address address) {
    for (const auto& [name, known] : addresses()) {
        if (known == address) return name;
    }
    throw std::runtime_error("a controller that was not plugged in");
}

Address plug() {
    const std::string name = control("plug");
    Address address{};
    const bool named_by_address = parse(name, address);
    for (int i = 0; !named_by_address && !find_address(name, address); ++i) {
        if (i == kTries) throw std::runtime_error("the kernel gives " + name + " no address");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    addresses()[name] = address;
    return address;
}

std::vector<Address> plug_anew(std::size_t count) {
    unplug_all();
    std::vector<Address> plugged;
    while (plugged.size() < count)
        plugged.push_back(plug());
    return plugged;
}

bool push_verified(Address address) {
    return control("stats " + name_of(address)).find(R"("verified":true)") != std::string::npos;
}

}  // namespace bench
