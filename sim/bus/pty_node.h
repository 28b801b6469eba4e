/// @file
/// The terminal that stands in for a device node.
#pragma once

#include <sys/types.h>

#include <string>

#include "bus/file_descriptor.h"

namespace jovusim {

/// A pseudo-terminal whose slave side programs open as their device node. libusb polls it for
/// writing and asks for finished transfers for as long as it is writable, so the terminal's output
/// is stopped whenever nothing has finished: an idle program then sleeps.
///
/// The terminal belongs to a session of its own, whose leader is a process that does nothing: else
/// a program that is a session leader would get the node as its controlling terminal, and a SIGHUP
/// when it is unplugged.
///
/// Not thread-safe: the device's lock guards it. To be made by a thread that outlives it.
class PtyNode {
public:
    /// @throws std::system_error
    PtyNode();
    PtyNode(const PtyNode&) = delete;
    PtyNode& operator=(const PtyNode&) = delete;
    ~PtyNode();

    /// The slave's path, "/dev/pts/...".
    const std::string& path() const { return path_; }

    /// Lets programs that poll the node see it writable, or not.
    void set_writable(bool writable);

    /// Ends it for all who have it open: poll() reports an error and a hang-up from now on.
    void hang_up();

private:
    void start_keeper();

    UniqueFd master_;
    UniqueFd slave_;
    std::string path_;
    pid_t keeper_ = -1;
    bool writable_ = true;
};

}  // namespace jovusim
