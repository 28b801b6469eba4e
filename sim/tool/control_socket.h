// SPDX-License-Identifier: Apache-2.0

/// @file
/// The control socket: its server in the simulator and its client.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "device/file_descriptor.h"

namespace jovusim {

/// The environment variable with the socket's path.
constexpr char kControlVariable[] = "JOVU_SIM_CONTROL";

/// Serves a line protocol on a local socket: each request is a line, and so is each response. There
/// may be any number of connections, and of requests on each. Main thread only; never blocks.
class ControlServer {
public:
    /// @param path   must not exist yet
    /// @param handler returns the response to a request, without line feeds
    /// @throws std::system_error
    ControlServer(const std::string& path, std::function<std::string(const std::string&)> handler);

    /// Adds the descriptors that the server polls.
    void add_to(std::vector<pollfd>& waits) const;

    /// Serves the descriptors that poll() has found ready.
    void serve(const std::vector<pollfd>& waits);

private:
    struct Connection {
        UniqueFd fd;
        std::string in;
        std::string out;
        bool closing = false;  ///< the other end has sent its last request
    };

    void accept_all();
    bool serve(Connection& connection, short events);
    bool read_some(Connection& connection);
    bool write_some(Connection& connection) const;
    void handle_lines(Connection& connection);

    std::function<std::string(const std::string&)> handler_;
    UniqueFd listener_;
    UniqueFd spare_;  ///< given up to turn a client away when descriptors have run out
    std::list<Connection> connections_;
};

/// Sends one request to the simulator in which this program runs and prints the response.
/// @returns kExitOk, kExitRefused or kExitUsage
int run_control_client(const std::string& request);

}  // namespace jovusim
