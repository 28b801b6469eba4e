/// @file
/// Device nodes as programs open them.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "bus/file_descriptor.h"
#include "bus/ioctl_link.h"
#include "bus/mutex.h"
#include "bus/sim_device.h"

namespace jovusim {

/// Serves one device node's path for the life of the testbed: whatever device is plugged in there,
/// and ENODEV for programs that still hold one that is gone. The path's listening socket stays for
/// good on purpose: a program that opens the node at the moment of an unplug ends itself when it
/// finds the socket's file but nobody behind it.
///
/// Made and destroyed on the main thread. A thread of its own takes new files in, and each of them
/// gets one.
class UsbfsNode {
public:
    /// @param root of the testbed @param node as "/dev/bus/usb/001/002"
    /// @throws std::system_error when it cannot listen
    UsbfsNode(const std::string& root, const std::string& node);
    UsbfsNode(const UsbfsNode&) = delete;
    UsbfsNode& operator=(const UsbfsNode&) = delete;
    /// Ends all sessions: a program that still has a file open fails from then on.
    ~UsbfsNode();

    /// What programs get that open the node from now on; null for nothing.
    void set_device(std::shared_ptr<SimDevice> device);

private:
    struct OpenFile {
        explicit OpenFile(UniqueFd socket) : link(std::move(socket)) {}

        IoctlLink link;
        std::atomic<bool> ended{false};
        std::thread thread;
    };

    void accept_files();
    void serve(OpenFile& file);
    std::shared_ptr<SimDevice> device();

    UniqueFd listener_;

    Mutex mutex_;  // a leaf: no other lock is acquired while it is held
    std::shared_ptr<SimDevice> device_ JOVU_GUARDED_BY(mutex_);

    std::list<OpenFile> files_;  // the acceptor's, and the destructor's when that has ended
    std::thread acceptor_;
};

}  // namespace jovusim
