#include "tool/control_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "bus/local_socket.h"
#include "tool/control_name.h"
#include "tool/exit_status.h"

namespace jovusim {

namespace {

/// @throws std::system_error
std::string ask(const std::string& path, const std::string& line) {
    const UniqueFd fd = local_socket(0);
    const sockaddr_un address = local_address(path);
    const auto fail = [&path] {
        throw std::system_error(errno, std::generic_category(), "no simulator at " + path);
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
    const char* const path = std::getenv(kControlVariable);
    if (path == nullptr) {
        std::fprintf(stderr, "jovu-sim: %s is not set: not inside \"jovu-sim run\"\n",
                     kControlVariable);
        return kExitUsage;
    }
    if (request.find('\n') != std::string::npos) {
        std::fprintf(stderr, "jovu-sim: a request is one line\n");
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
