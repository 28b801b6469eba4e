// SPDX-License-Identifier: Apache-2.0

/// @file
/// A client for applications that do not derive from JovuClient.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "jovu/client.h"
#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"

/// What a JovuCallbackClient calls. An empty function is not called.
///
/// An exception that a callback throws ends there: it is reported as one diagnostic line (see
/// jovu/log.h), and the client goes on.
struct JovuCallbacks {
    /// @name On a notification thread
    /// Calls may overlap, and may send commands.
    /// @{

    /// A device is connected and accepts commands. See JovuTransport::device_connected().
    std::function<void(JovuDeviceAddress device)> connected;

    /// A device is disconnected. See JovuTransport::device_disconnected().
    std::function<void(JovuDeviceAddress device)> disconnected;

    /// @}
    /// @name On the thread that handles USB events
    /// Nothing is received while one runs: it must not block, and every send in it fails at once,
    /// as JovuEventInterface and JovuJobInterface describe. The arguments are valid during the call
    /// only.
    /// @{

    /// The firmware printed a message; empty for an event without one.
    std::function<void(JovuDeviceAddress device, const std::string& text)> debug_event;

    /// A servo whose tracing is enabled reports one sample of its control loop.
    std::function<void(JovuDeviceAddress device, const servo_trace_msg& sample)> servo_trace_event;

    /// A status report has arrived.
    std::function<void(JovuDeviceAddress device, const JovuJobInterface::StatusMsg& status)>
        status_report;

    /// A complete JSON object has arrived on the job channel, of whatever kind.
    std::function<void(JovuDeviceAddress device, std::string_view json)> job_data;

    /// @}
};

/// A client of the library as a member of any class: it calls functions instead of overrides, and
/// calls nothing before start().
///
/// Declare it behind the members that its callbacks use, so that it is destroyed first; or call
/// stop() first in the destructor of the owner.
///
/// Threads: start() and client() before the end of start() belong to one thread; everything else
/// may be called from any.
class JOVU_API JovuCallbackClient {
public:
    /// Does not start the USB connection; cannot fail but for want of memory.
    JovuCallbackClient();

    /// As stop(). Not in a callback with received data.
    ~JovuCallbackClient();

    JovuCallbackClient(const JovuCallbackClient&) = delete;
    JovuCallbackClient& operator=(const JovuCallbackClient&) = delete;

    /// Starts the USB connection. Callbacks begin with the `connected` of each attached device, and
    /// may use client() at once, also before this returns.
    /// @param callbacks are destroyed with this object.
    /// @param strict_matching see JovuTransport::set_strict_matching().
    /// @throws JovuException "The client has been started already.", also after stop(): one object
    ///     serves one start; and whatever JovuClient() throws: nothing is left behind then, and
    ///     start() may be called again.
    void start(JovuCallbacks callbacks, bool strict_matching = true);

    /// Ends the client: when it returns, no callback is running (but one that made the call) and
    /// none will follow; commands fail. See JovuClient::shutdown() for a call in a callback. May be
    /// called more than once, and before start(), where it does nothing.
    void stop();

    /// The client, for commands, requests and pushes.
    /// @return valid until this object is destroyed.
    /// @throws JovuException "The client has not been started."
    JovuClient& client() const;

private:
    class JOVU_LOCAL Client;
    std::unique_ptr<Client> client_;
};
