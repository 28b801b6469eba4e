// SPDX-License-Identifier: Apache-2.0

/// @file
/// The one class that an application derives from.
#pragma once

#include "jovu/command_interface.h"
#include "jovu/device_address.h"
#include "jovu/event_interface.h"
#include "jovu/exception.h"
#include "jovu/export.h"
#include "jovu/job_interface.h"
#include "jovu/scan_pause.h"
#include "jovu/transport.h"

/// The whole library as one object: print jobs, firmware commands, firmware events and the
/// transport. An application derives from it, overrides the callbacks that it needs, and calls the
/// command and job methods with an address from device_connected() or list_connected().
///
/// A class derived from this one takes a JovuScanPause as the default argument of its constructor,
/// so that it is complete when the first device connects.
///
/// Construction starts the USB connection; device_connected() is called for every device that is
/// attached already, as for later ones. It is not called for a device that the process has open
/// already, through another client: this client receives its data and can push jobs to it, but
/// cannot send it commands before it is plugged in again. One client per process is the rule.
///
/// Destruction unregisters the client and waits for running notification threads. When
/// ~JovuClient() begins, the overrides and members of the application's class have been destroyed
/// already, so that class calls shutdown() first in its own destructor.
///
/// When the last client of the process is destroyed, the USB connection stops: devices are closed
/// and libusb is shut down.
class JOVU_API JovuClient : public JovuJobInterface,
                            public JovuCommandInterface,
                            public JovuEventInterface,
                            public JovuTransport {
public:
    /// Registers the client; starts the USB connection on first use.
    /// @throws JovuException "Failed to initialize libusb", or when called in a callback with
    ///     received data; std::system_error when no thread can be started. Nothing is left
    ///     behind then.
    JovuClient();

    /// As shutdown().
    ~JovuClient() override;

    /// A device is connected and accepts commands. Empty by default. See
    /// JovuTransport::device_connected().
    void device_connected(JovuDeviceAddress address) override;

    /// A device is disconnected. Empty by default. See JovuTransport::device_disconnected().
    void device_disconnected(JovuDeviceAddress address) override;

    /// Unregisters the client: when it returns, no callback of this client is running (but
    /// one that made the call) and none will follow. May be called more than once; an application
    /// calls it first in its own destructor. A push of this client ends, as
    /// JovuJobInterface::shutdown() says.
    ///
    /// In a handler that is called with received data it cannot wait for other callbacks: none
    /// begins after it returns, and the rest is left to a later call or the destructor. A client
    /// must not be destroyed in a handler, except by std::exit(), which never returns to it. Other
    /// threads' calls then fail. As with _exit() or a kill, a frame that is being sent may be cut,
    /// which the controller drops after a time of its own.
    void shutdown();

private:
    JOVU_LOCAL explicit JovuClient(const JovuScanPause& until_built);
};
