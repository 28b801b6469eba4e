/// @file
/// The ioctls of a device node.
#pragma once

#include <umockdev.h>

#include <memory>
#include <string>

#include "bus/sim_device.h"

namespace jovusim {

/// Serves one device node's path for the life of the testbed: whatever device is plugged in there,
/// and ENODEV for programs that still hold one that is gone. The path's listening socket stays for
/// good on purpose: a program that opens the node at the moment of an unplug ends itself when it
/// finds the socket's file but nobody behind it.
///
/// Made and destroyed on the main thread; ioctls come on the testbed's worker thread, also for a
/// while after this object has gone.
class UsbfsNode {
public:
    /// @throws std::runtime_error when the testbed cannot listen
    UsbfsNode(UMockdevTestbed* testbed, const std::string& node);
    UsbfsNode(const UsbfsNode&) = delete;
    UsbfsNode& operator=(const UsbfsNode&) = delete;
    ~UsbfsNode();

    /// What programs get that open the node from now on; null for nothing.
    void set_device(std::shared_ptr<SimDevice> device);

    /// How many files of all nodes of this process are open and have been used. Any thread.
    static unsigned open_files();

private:
    struct Socket;
    std::shared_ptr<Socket> socket_;
};

}  // namespace jovusim
