#include "bus/local_socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace jovusim {

UniqueFd local_socket(int flags) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!fd) throw std::system_error(errno, std::generic_category(), "cannot make a socket");
    return fd;
}

sockaddr_un local_address(const std::string& path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

}  // namespace jovusim
