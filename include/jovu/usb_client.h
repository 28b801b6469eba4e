/// @file
/// The receiver side of the USB link.
#pragma once

#include "jovu/device_address.h"
#include "jovu/export.h"

/// Receives the link notices and the data of one USB interface number.
///
/// Threads: connect and disconnect notices come on the link's watcher thread, disconnect notices
/// also on a thread that closes a device or takes the link down. Data comes on whichever thread is
/// running USB event handling: normally the watcher, for moments a thread that sends or closes.
/// The link holds its client lock for that interface during every call, so calls for one interface
/// never overlap; it must not be held up for long.
class JOVU_API JovuUsbClient {
public:
    virtual ~JovuUsbClient();

    /// A device has been opened. Called once per device, before its data.
    virtual void usb_device_connected(JovuDeviceAddress address) = 0;

    /// A device is being closed. Called once per opened device; data that was on its way may still
    /// follow.
    virtual void usb_device_disconnected(JovuDeviceAddress address) = 0;

    /// Bytes of one USB transfer have arrived.
    /// @param data the link's own buffer, valid during the call only.
    /// @param length 1..64 bytes.
    /// @param address the device that sent them.
    virtual void data_received(unsigned char* data, unsigned int length,
                               JovuDeviceAddress address) = 0;

protected:
    JovuUsbClient() = default;
    JovuUsbClient(const JovuUsbClient&) = default;
    JovuUsbClient& operator=(const JovuUsbClient&) = default;
};
