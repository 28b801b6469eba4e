// SPDX-License-Identifier: Apache-2.0

/// @file
/// The state of a transport.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <unordered_map>

#include "base/calls_in_progress.h"
#include "base/mutex.h"
#include "core/cancellable_exchanges.h"
#include "core/frame.h"
#include "core/notification_threads.h"
#include "core/waiting_requests.h"
#include "jovu/device_address.h"
#include "jovu/transport.h"
#include "json/json_tree.h"
#include "usb/usb.h"

struct JovuTransport::State {
    explicit State(JovuEventInterface* event_interface) : events(event_interface) {}

    /// What the transport keeps of one device address. Created by the first connection or data.
    /// Apart from `connection`, touched only by the backend's calls for interface 0, which never
    /// overlap.
    struct Peer {
        /// Outlives the connection: a frame that an unplug cut off continues with the next bytes
        /// from the same address.
        jovu::FrameDecoder decoder;

        /// The disconnect notification, allocated at connect time so that disconnecting needs no
        /// memory.
        std::optional<jovu::NotificationThreads::Prepared> disconnected;

        /// Written by the same calls, with peers_mutex held; other threads read it with that held.
        /// Null while no device is connected.
        std::shared_ptr<jovu::Connection> connection;

        /// Any thread.
        jovu::CancellableExchanges cancellable;
    };

    /// What an exchange with an address uses.
    struct Route {
        std::shared_ptr<jovu::Connection> connection;  ///< Null if there is none.
        jovu::CancellableExchanges* cancellable;       ///< Null for an address never seen.
    };
    Route route(JovuDeviceAddress address);

    Peer& peer(JovuDeviceAddress address);

    /// Has every exchange in progress, waiting for its turn or for a response, look whether the
    /// transport still accepts exchanges.
    void wake_exchanges();

    /// Waits for its turn, sends a message and waits for its response.
    /// @throws JovuException when one of the three fails, also because of a cancellation.
    void exchange(JovuMessage& message, jovu::Connection& connection,
                  jovu::CancellableExchanges::Ticket& ticket);

    /// Null for a transport that is no part of a client.
    JovuEventInterface* const events;

    std::shared_ptr<State> kept_by;  ///< This and the next as jovu::keep_until_exit() needs them.
    State* kept_before = nullptr;

    std::atomic<bool> strict{false};     ///< Match responses by connection and command too.
    std::atomic<bool> exchanged{false};  ///< An exchange has begun.

    /// How long a response is awaited, where the thread's JovuResponseTimeout does not say.
    std::atomic<std::chrono::milliseconds> response_timeout{std::chrono::seconds(15)};

    jovu::Mutex peers_mutex;  ///< A leaf.
    /// Elements are never removed, so a reference to one stays valid.
    std::unordered_map<JovuDeviceAddress, Peer> peers JOVU_GUARDED_BY(peers_mutex);

    /// Of received messages. Touched only while received data is dispatched, which never overlaps.
    jovu::JsonMemory tree_memory;

    jovu::WaitingRequests waiting;
    jovu::NotificationThreads notifications;
    jovu::CallsInProgress exchanges;
    jovu::Registration registration;
};
