/// @file
/// Sending.
#include <algorithm>
#include <climits>
#include <string>

#include "jovu/exception.h"
#include "usb/delivery.h"
#include "usb/link.h"
#include "usb/usb.h"

namespace {

using jovu::Link;
using jovu::link;
using jovu::UsbDevice;

[[noreturn]] void fail(int libusb_error) {
    throw JovuException("Send failed - libusb error: " + std::to_string(libusb_error));
}

bool can_take(const UsbDevice* device, JovuUsb::connection_t connection) {
    return device != nullptr && device->usable() &&
           (connection == JovuUsb::kAnyConnection || connection == device->connection());
}

void check(const UsbDevice* device, JovuUsb::connection_t connection,
           JovuUsb::jovu_usb_interface_t interface) {
    if (!can_take(device, connection)) {
        throw JovuException("Send failed - Device no longer connected.");
    }
    if (interface >= jovu::kInterfaceCount) {
        throw JovuException("Send failed - interface invalid.");
    }
}

/// libusb would refuse a synchronous transfer here as busy, and the gate may be held by a sender
/// that waits for this thread to handle its events. So the write fails without waiting.
void refuse_in_delivery(Link& state, std::initializer_list<JovuUsb::Piece> pieces,
                        JovuDeviceAddress address, JovuUsb::jovu_usb_interface_t interface,
                        JovuUsb::connection_t connection) {
    const jovu::MutexLock lock(state.directory_mutex);
    const auto found = state._connected_devices.find(address);
    check(found == state._connected_devices.end() ? nullptr : found->second.get(), connection,
          interface);
    for (const JovuUsb::Piece& piece : pieces) {
        if (piece.length > 0) fail(LIBUSB_ERROR_BUSY);
    }
}

/// Caller holds the device gate.
void send(libusb_device_handle* handle, unsigned char endpoint, const JovuUsb::Piece& piece) {
    unsigned int offset = 0;
    unsigned int retries = 0;
    unsigned int empty = 0;
    while (offset < piece.length) {
        // libusb reads the data only, but takes the pointer of an inward transfer as well.
        auto* const rest = const_cast<unsigned char*>(piece.data + offset);
        const int size = static_cast<int>(std::min<unsigned int>(piece.length - offset, INT_MAX));
        int transferred = 0;
        const int result =
            libusb_bulk_transfer(handle, endpoint, rest, size, &transferred, jovu::kSendTimeoutMs);
        // A timed-out call may have moved some bytes. They are sent again: the retry repeats the
        // call as it was.
        const bool passing = result == LIBUSB_ERROR_TIMEOUT || result == LIBUSB_ERROR_BUSY;
        if (passing && retries < jovu::kSendRetries) {
            ++retries;
            continue;
        }
        if (result != 0) fail(result);
        empty = transferred > 0 ? 0 : empty + 1;
        if (empty == jovu::kMaxEmptySends) {
            throw JovuException("Send failed - device takes no data.");
        }
        offset += static_cast<unsigned int>(std::clamp(transferred, 0, size));
        retries = 0;
    }
}

}  // namespace

void JovuUsb::write(const unsigned char* data, unsigned int length, JovuDeviceAddress address,
                    jovu_usb_interface_t interface, connection_t connection) {
    write({{data, length}}, address, interface, connection);
}

void JovuUsb::write(std::initializer_list<Piece> pieces, JovuDeviceAddress address,
                    jovu_usb_interface_t interface, connection_t connection) {
    Link& state = link();
    if (jovu::delivering()) {
        refuse_in_delivery(state, pieces, address, interface, connection);
        return;
    }
    // Held over all pieces. A close that a callback orders meanwhile is carried out behind them.
    const jovu::GateLock gate(state._connected_devices_mutex);
    UsbDevice* const device = state.device_at(address);
    check(device, connection, interface);
    for (const Piece& piece : pieces)
        send(device->handle(), jovu::kSendEndpoint[interface], piece);
}
