// SPDX-License-Identifier: Apache-2.0
#include "support/sim_control.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "device/file_descriptor.h"

namespace test {

std::string sim(const std::string& request) {
    const char* const path = std::getenv("JOVU_SIM_CONTROL");
    if (path == nullptr) throw std::runtime_error("not running under jovu-sim");
    // One connection carries all requests of a thread.
    thread_local const jovusim::UniqueFd socket = jovusim::local_socket(0);
    thread_local const sockaddr_un address = jovusim::local_address(path);
    thread_local const int refused =
        ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (refused != 0) throw std::runtime_error(std::string("cannot reach jovu-sim at ") + path);
    const std::string line = request + "\n";
    if (::send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(line.size())) {
        throw std::runtime_error("jovu-sim does not take a request");
    }
    std::string response;
    for (char c = 0; ::read(socket.get(), &c, 1) == 1 && c != '\n';)
        response += c;
    if (response.rfind("ok", 0) != 0) throw std::runtime_error(request + ": " + response);
    return response.size() > 3 ? response.substr(3) : std::string();
}

JovuDeviceAddress plug(const std::string& what) {
    const std::string where = sim(what.empty() ? "plug" : "plug " + what);
    unsigned bus = 0;
    unsigned address = 0;
    if (std::sscanf(where.c_str(), "%u:%u", &bus, &address) != 2) {
        throw std::runtime_error("plug: " + where);
    }
    return {static_cast<std::uint8_t>(bus), static_cast<std::uint8_t>(address)};
}

std::string name(JovuDeviceAddress address) {
    return std::to_string(address.bus) + ":" + std::to_string(address.address);
}

nlohmann::json stats(JovuDeviceAddress address) {
    return nlohmann::json::parse(sim("stats " + name(address)));
}

int protocol_violations(JovuDeviceAddress address) {
    return stats(address)["protocol_violations"]["count"];
}

int requests(JovuDeviceAddress address, const std::string& command) {
    return stats(address)["message"]["commands"].value(command, 0);
}

}  // namespace test
