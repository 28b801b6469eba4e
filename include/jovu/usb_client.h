// SPDX-License-Identifier: Apache-2.0

/// @file
/// The receiver side of the USB backend.
#pragma once

#include <memory>

#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "jovu/export.h"

namespace jovu {
class Connection;
}

/// Receives the notifications and the data of one USB interface number.
///
/// Threads: notifications come on the watcher thread; disconnect notifications also on a thread
/// that closes a device or stops the backend. Data comes on whichever thread is running USB event
/// handling: normally the watcher, for moments a thread that sends or closes. The backend holds its
/// client mutex for that interface during every call, so calls for one interface never overlap; a
/// call must not block for long. In a call, a write fails at once, as busy, and a close is carried
/// out after it.
class JOVU_API JovuUsbClient {
public:
    /// The derived class has unregistered by then.
    virtual ~JovuUsbClient();

    /// A device has been opened. Called once per connection, before its data. The default calls
    /// usb_device_connected() with its address.
    /// @param connection may be kept, for sending to the device.
    virtual void connection_opened(const std::shared_ptr<jovu::Connection>& connection);

    /// A device has been opened.
    virtual void usb_device_connected(JovuDeviceAddress address) = 0;

    /// A device is being closed. Called once per connection; data that was on its way may still
    /// follow.
    virtual void usb_device_disconnected(JovuDeviceAddress address) = 0;

    /// Bytes of one USB transfer have arrived.
    /// @param data the backend's own buffer, valid during the call only.
    /// @param length 1..64 bytes.
    /// @param address the device that sent them.
    virtual void data_received(unsigned char* data, unsigned int length,
                               JovuDeviceAddress address) = 0;

    /// A controller is attached and cannot be opened. Called for interface 0 only, once for each
    /// reason. The default does nothing.
    virtual void usb_device_unavailable(const JovuDeviceInfo& device);

protected:
    /// Registers nothing.
    JovuUsbClient() = default;
    /// A copy is not registered.
    JovuUsbClient(const JovuUsbClient&) = default;
    /// A registration stays as it is.
    JovuUsbClient& operator=(const JovuUsbClient&) = default;
};
