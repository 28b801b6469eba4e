/// @file
/// The USB link: the library's only contact with the bus.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

#include "jovu/device_address.h"
#include "jovu/usb_client.h"

/// The link's operations; its state is process-wide (see link.h), its devices are UsbDevice
/// objects.
///
/// The link runs while at least one client is registered: a watcher thread scans the bus every
/// 500 ms, opens and closes devices, and runs libusb's event handling in between.
class JovuUsb {
public:
    /// Interface numbers of a device, and so its channels.
    enum jovu_usb_interface_t : std::uint32_t {
        JOVU_USB_INTERFACE_MESSAGES = 0,
        JOVU_USB_INTERFACE_JOBS = 1,
    };

    /// Tells one opening of a device from every other one, also at the same address.
    using connection_t = std::uint64_t;
    static constexpr connection_t kNoConnection = 0;
    static constexpr connection_t kAnyConnection = ~connection_t{0};

    /// Adds a client to the end of an interface's list and starts the link if it is not running.
    /// The client is not told of devices that are open already.
    /// @param client stays the caller's and must unregister before it is destroyed.
    /// @throws JovuException "Failed to initialize libusb"; a std::system_error when no thread can
    /// be
    ///     started. JovuException also when called from inside a notice or a delivery.
    static void client_register(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// Takes the client's first entry off an interface's list. When that list is then empty the
    /// link goes down, whether or not the other interface still has clients: the watcher ends,
    /// devices are closed on this thread, libusb is left. When the call returns, no call of the
    /// client for that interface is running. Takes up to the rest of a send in progress.
    /// @throws JovuException when called from inside a notice or a delivery: it would wait for
    ///     itself.
    static void client_unregister(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// For a thread in a callback, where client_unregister() would wait for itself: no call of the
    /// client for that interface begins after this one returns. The backend keeps running.
    static void client_detach(JovuUsbClient& client, jovu_usb_interface_t interface);

    /// Sends bytes to a device and returns when it has taken them all. Threads: any; on a thread
    /// in a received-data callback it fails at once, as busy.
    /// @param data needed during the call only.
    /// @param length in bytes; with 0 nothing is sent.
    /// @param connection restricts the send to that very opening of the device.
    /// @throws JovuException "Send failed - ..."; bytes already sent stay sent.
    static void write(const unsigned char* data, unsigned int length, JovuDeviceAddress address,
                      jovu_usb_interface_t interface, connection_t connection = kAnyConnection);

    /// One of several writes that belong together.
    struct Piece {
        const unsigned char* data;  ///< Needed during the call only.
        unsigned int length;        ///< Bytes; with 0 nothing is sent.
    };

    /// As write(), piece by piece, with no close of the device between them: once the first piece
    /// is written, the others follow unless the device fails.
    static void write(std::initializer_list<Piece> pieces, JovuDeviceAddress address,
                      jovu_usb_interface_t interface, connection_t connection = kAnyConnection);

    /// As JovuTransport::close().
    static void close(JovuDeviceAddress address);

    /// As JovuTransport::list_connected().
    static std::vector<JovuDeviceAddress> list_connected();

    /// As JovuTransport::list_attached(). Works also while the link is idle.
    static std::vector<JovuUsbDevice> list_attached();

    /// @return which opening of a device the address stands for now; kNoConnection if there is
    /// none.
    static connection_t connection(JovuDeviceAddress address);

    /// As JovuTransport::is_watching().
    static bool is_watching() noexcept;

    /// @return whether the calling thread is delivering received data, where nothing may wait for
    ///     another send or for event handling.
    static bool delivering() noexcept;

    /// @return whether the calling thread is in a callback of the backend: received data, or a
    ///     connect or disconnect notification of a JovuUsbClient.
    static bool in_callback() noexcept;

    /// Between these two (counted) the link makes no scan and so opens no device.
    static void hold_scans() noexcept;
    static void release_scans() noexcept;

    JovuUsb() = delete;
};
