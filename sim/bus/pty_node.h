// SPDX-License-Identifier: Apache-2.0

/// @file
/// The pseudo-terminal behind a device node.
#pragma once

#include <sys/types.h>

#include <string>

#include "device/file_descriptor.h"

namespace jovusim {

/// A pseudo-terminal whose slave side programs open as their device node. libusb polls the node for
/// writing and reaps transfers while it is writable. The terminal's output is therefore stopped
/// while no transfer has finished, so that an idle program sleeps.
///
/// The terminal is the controlling terminal of an idle process, the leader of a new session.
/// Otherwise it would become that of a session leader that opens the node, which would get SIGHUP
/// at an unplug.
///
/// Not thread-safe: the device's lock guards it. The thread that constructs it must outlive it,
/// since the idle process ends with that thread.
class PtyNode {
public:
    /// @throws std::system_error
    PtyNode();
    PtyNode(const PtyNode&) = delete;
    PtyNode& operator=(const PtyNode&) = delete;
    ~PtyNode();

    /// Path of the slave side, "/dev/pts/...".
    const std::string& path() const { return path_; }

    /// Sets whether poll() reports the node as writable.
    void set_writable(bool writable);

    /// Hangs the terminal up: poll() on the node reports an error and a hang-up from now on.
    void hang_up();

private:
    void start_session_leader();

    UniqueFd master_;
    UniqueFd slave_;
    std::string path_;
    pid_t session_leader_ = -1;
    bool writable_ = true;
};

}  // namespace jovusim
