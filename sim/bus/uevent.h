/// @file
/// Telling programs that a device has come or gone.
#pragma once

#include <string>

#include "bus/bus_address.h"

namespace jovusim {

/// Sends hot-plug messages to the programs that watch a testbed. The testbed's own sender ends the
/// process when a listener goes away at the wrong moment; this one takes it as it is.
/// Main thread only.
class UeventSender {
public:
    /// @param root the testbed's directory, where listeners have their sockets
    explicit UeventSender(std::string root) : root_(std::move(root)) {}

    /// @param action "add" or "remove"
    void send(const std::string& action, BusAddress address);

private:
    std::string root_;
    unsigned sequence_ = 0;
};

}  // namespace jovusim
