/// @file
/// What a transport keeps.
#pragma once

#include <memory>
#include <unordered_map>

#include "core/calls_in_progress.h"
#include "core/frame.h"
#include "core/notice_threads.h"
#include "core/send_locks.h"
#include "core/waiting_requests.h"
#include "jovu/device_address.h"
#include "jovu/transport.h"
#include "usb/registration.h"

struct JovuTransport::State {
    /// Receive state per device address. Touched only by the link's calls for interface 0, which
    /// never overlap. An entry outlives its device: a frame that an unplug cut off goes on with the
    /// next bytes from the same address.
    std::unordered_map<JovuDeviceAddress, jovu::FrameDecoder> rx_states;

    jovu::WaitingRequests waiting;
    jovu::SendLocks device_mutexes;
    jovu::NoticeThreads notices;
    jovu::CallsInProgress exchanges;
    jovu::Registration registration;
};
