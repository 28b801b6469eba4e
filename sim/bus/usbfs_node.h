// SPDX-License-Identifier: Apache-2.0

/// @file
/// Device nodes and the ioctls of their open files.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "bus/ioctl_link.h"
#include "bus/sim_device.h"
#include "device/file_descriptor.h"
#include "device/mutex.h"

namespace jovusim {

/// Serves the path of one device node for the life of the testbed: the device that is plugged in
/// there, and ENODEV for open files of an unplugged one. The listening socket stays open because
/// the preloaded library aborts a program that finds the socket's file and cannot connect to it.
///
/// Constructed and destroyed on the main thread. One thread accepts open files, and each of them
/// has a thread.
class UsbfsNode {
public:
    /// @param root of the testbed @param node as "/dev/bus/usb/001/002"
    /// @throws std::system_error when it cannot listen
    UsbfsNode(const std::string& root, const std::string& node);
    UsbfsNode(const UsbfsNode&) = delete;
    UsbfsNode& operator=(const UsbfsNode&) = delete;
    /// Ends all sessions: ioctls on files that are still open fail from then on.
    ~UsbfsNode();

    /// Sets the device for files that are opened from now on; null for none.
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

    std::list<OpenFile> files_;  // used by acceptor_, and by the destructor after it has ended
    std::thread acceptor_;
};

}  // namespace jovusim
