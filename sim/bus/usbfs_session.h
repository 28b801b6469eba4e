/// @file
/// The ioctls of one open file of a device node.
#pragma once

#include <memory>

#include "bus/ioctl_link.h"
#include "bus/sim_device.h"

namespace jovusim {

/// Serves one open file until it is closed. Runs on a thread of its own, which no other one waits
/// for but at the end: a program that is stopped in the middle of an ioctl holds nobody up.
class UsbfsSession {
public:
    /// @param device that was behind the node when it was opened; null for none
    UsbfsSession(IoctlLink& link, std::shared_ptr<SimDevice> device);
    UsbfsSession(const UsbfsSession&) = delete;
    UsbfsSession& operator=(const UsbfsSession&) = delete;
    ~UsbfsSession();

    /// Returns when the file has been closed.
    void run();

private:
    using Request = IoctlLink::Request;

    /// What an ioctl returns: 0, an errno, or kContended.
    using Outcome = int;

    Outcome carry_out(const Request& request);
    Outcome capabilities(const Request& request);
    Outcome with_interface(const Request& request, int (SimDevice::*work)(ClientId, unsigned));
    Outcome set_configuration(const Request& request);
    Outcome disconnect_claim(const Request& request);
    Outcome submit(const Request& request);
    Outcome reap(const Request& request);

    IoctlLink& link_;
    const std::shared_ptr<SimDevice> device_;
    ClientId client_ = 0;
};

}  // namespace jovusim
