/// @file
/// Local stream sockets.
#pragma once

#include <sys/un.h>

#include <string>

#include "bus/unique_fd.h"

namespace jovusim {

/// A stream socket that exec closes. @param flags SOCK_NONBLOCK or 0
/// @throws std::system_error
UniqueFd local_socket(int flags);

/// @throws std::system_error ENAMETOOLONG
sockaddr_un local_address(const std::string& path);

}  // namespace jovusim
