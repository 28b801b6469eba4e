// SPDX-License-Identifier: Apache-2.0

/// @file
/// Hot-plug messages to the programs on the bus.
#pragma once

#include <string>
#include <thread>

#include "device/file_descriptor.h"
#include "device/types.h"

namespace jovusim {

/// Gives the socket of every listener a name of its own. umockdev's preloaded library names them by
/// descriptor number and removes what has the name already, so that a second program would take the
/// first one's place. A socket is renamed as soon as it is bound; messages reach it as before.
class ListenerSockets {
public:
    /// @param root the testbed's directory, in which the sockets are made
    /// @throws std::system_error
    explicit ListenerSockets(std::string root);
    ~ListenerSockets();
    ListenerSockets(const ListenerSockets&) = delete;
    ListenerSockets& operator=(const ListenerSockets&) = delete;

private:
    void rename_new_ones();

    const std::string root_;
    UniqueFd created_;  ///< Reports the files that are created in the directory.
    UniqueFd stop_;     ///< Readable once the thread is to end.
    unsigned renamed_ = 0;
    std::thread thread_;
};

/// Sends hot-plug messages to the programs that watch a testbed. umockdev's own sender aborts the
/// process when a listener closes its socket during the call; this one ignores that error. Main
/// thread only.
class UeventSender {
public:
    /// @param root the testbed's directory, which contains the sockets of the listeners
    explicit UeventSender(std::string root) : root_(std::move(root)) {}

    /// @param action "add" or "remove"
    void send(const std::string& action, BusAddress address);

private:
    std::string root_;
    unsigned sequence_ = 0;
};

}  // namespace jovusim
