// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's events, one overridable handler each.
#pragma once

#include <memory>
#include <string>

#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/firmware_types.h"

class JovuEvent;
class JovuTransport;

/// Receives the events that the firmware sends on its own. Override the handlers that are needed;
/// each is empty by default.
///
/// Threads: handlers run on the thread that handles USB events (the watcher thread, or one that
/// pushes, sends or closes), one at a time, and nothing is received while one runs. In a
/// handler, commands and sends fail at once and JovuTransport::close() is carried out right after
/// the handler returns; listing works. A handler must not destroy a client or construct one.
///
/// A malformed event is dropped without a call; an event of an unknown name is ignored. A handler
/// must not throw: an exception ends the watcher thread, for the whole process, with one line on
/// standard output.
class JOVU_API JovuEventInterface {
public:
    /// @param transport the transport that receives the events; only the reference is kept.
    explicit JovuEventInterface(JovuTransport& transport);

    JovuEventInterface(const JovuEventInterface&) = delete;
    JovuEventInterface& operator=(const JovuEventInterface&) = delete;

    /// The firmware printed a message.
    /// @param address the device.
    /// @param text the bytes as sent; the firmware ends them with a NUL, and the library keeps one
    ///     more zero behind them in any case. Null when the event carried no arguments. The
    ///     handler may keep the pointer.
    virtual void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text);

    /// A servo whose tracing is enabled reports one sample of its control loop.
    /// @param address the device.
    /// @param sample the sample; all zero when the event carried no arguments.
    virtual void servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample);

    /// The event object registered under a name.
    ///
    /// Called on the thread that handles USB events. An unknown name is kept with a null
    /// entry, for a bounded number of names.
    /// @param name the event's name on the wire.
    /// @return owned by this object; null when no event has that name.
    JovuEvent* get_firmware_event(std::string name);

protected:
    /// Not virtual: an application destroys its client through JovuClient.
    ~JovuEventInterface();

private:
    struct JOVU_LOCAL Registry;
    std::unique_ptr<Registry> registry_;
};
