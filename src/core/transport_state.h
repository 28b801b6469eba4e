/// @file
/// What a transport keeps.
#pragma once

#include <atomic>
#include <memory>
#include <unordered_map>

#include "base/calls_in_progress.h"
#include "core/frame.h"
#include "core/notice_threads.h"
#include "core/send_locks.h"
#include "core/waiting_requests.h"
#include "jovu/device_address.h"
#include "jovu/transport.h"
#include "usb/registration.h"

struct JovuTransport::State {
    explicit State(JovuEventInterface* event_interface) : events(event_interface) {}

    /// Null for a transport that is no part of a client.
    JovuEventInterface* const events;

    std::shared_ptr<State> kept_by;  ///< This and the next as jovu::keep_until_exit() needs them.
    State* kept_before = nullptr;

    std::atomic<bool> strict{false};     ///< Match responses by connection and command too.
    std::atomic<bool> exchanged{false};  ///< An exchange has begun.

    /// Receive state per device address. Touched only by the link's calls for interface 0, which
    /// never overlap. An entry outlives its device: a frame that an unplug cut off goes on with the
    /// next bytes from the same address.
    std::unordered_map<JovuDeviceAddress, jovu::FrameDecoder> rx_states;

    /// The notices of the departure of each device that is there, made at its arrival: an
    /// application that closes a device when there is no memory is told all the same. Touched by
    /// the same calls only.
    std::unordered_map<JovuDeviceAddress, jovu::NoticeThreads::Prepared> farewells;
    static jovu::NoticeThreads::Prepared farewell(JovuTransport& transport,
                                                  JovuDeviceAddress address,
                                                  std::shared_ptr<jovu::SendLock> lock);

    jovu::WaitingRequests waiting;
    jovu::SendLocks device_mutexes;
    jovu::NoticeThreads notices;
    jovu::CallsInProgress exchanges;
    jovu::Registration registration;
};
