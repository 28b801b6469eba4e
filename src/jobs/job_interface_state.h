// SPDX-License-Identifier: Apache-2.0

/// @file
/// The state of a job interface.
#pragma once

#include <memory>
#include <unordered_map>

#include "base/calls_in_progress.h"
#include "jobs/job_stream.h"
#include "jobs/status_waiters.h"
#include "jovu/device_address.h"
#include "jovu/job_interface.h"
#include "json/json_tree.h"
#include "usb/usb.h"

namespace jovu {

/// What requests and pushes of a client fail with after its shutdown().
inline constexpr const char* kJobClientShutDown = "Send failed - The client has been shut down.";

}  // namespace jovu

struct JovuJobInterface::State {
    /// Receive buffers. Touched only by the USB backend's calls for interface 1, which never
    /// overlap. Created with the first data, erased when the device disconnects.
    std::unordered_map<JovuDeviceAddress, jovu::JobStream> streams;

    jovu::JsonMemory tree_memory;  ///< Of received objects; touched as `streams` is.

    jovu::StatusWaiters status_waiters;

    /// Requests, waits for a report and pushes.
    jovu::CallsInProgress calls;
    jovu::Registration registration;

    std::shared_ptr<State> kept_by;  ///< This and the next as jovu::keep_until_exit() needs them.
    State* kept_before = nullptr;
};
