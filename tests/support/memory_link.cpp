#include "support/memory_link.h"

#include <array>
#include <utility>

#include "usb/usb.h"

namespace {

constexpr JovuUsb::connection_t kConnection = 1;

memory_link::Writer writer;
std::array<JovuUsbClient*, 2> clients{};

}  // namespace

namespace memory_link {

void on_write(Writer new_writer) {
    writer = std::move(new_writer);
}

JovuUsbClient& client(unsigned interface) {
    return *clients.at(interface);
}

}  // namespace memory_link

void JovuUsb::write(const unsigned char* data, unsigned int length, JovuDeviceAddress /*address*/,
                    jovu_usb_interface_t interface, connection_t /*connection*/) {
    if (writer) writer(interface, data, length);
}

void JovuUsb::write(std::initializer_list<Piece> pieces, JovuDeviceAddress address,
                    jovu_usb_interface_t interface, connection_t connection) {
    for (const Piece& piece : pieces)
        write(piece.data, piece.length, address, interface, connection);
}

void JovuUsb::client_register(JovuUsbClient& client, jovu_usb_interface_t interface) {
    clients.at(interface) = &client;
}

void JovuUsb::client_unregister(JovuUsbClient& client, jovu_usb_interface_t interface) {
    if (clients.at(interface) == &client) clients.at(interface) = nullptr;
}

void JovuUsb::close(JovuDeviceAddress /*address*/) {}

std::vector<JovuDeviceAddress> JovuUsb::list_connected() {
    return {};
}

std::vector<JovuUsbDevice> JovuUsb::list_attached() {
    return {};
}

JovuUsb::connection_t JovuUsb::connection(JovuDeviceAddress /*address*/) {
    return kConnection;
}

bool JovuUsb::is_watching() noexcept {
    return true;
}

bool JovuUsb::delivering() noexcept {
    return false;
}

bool JovuUsb::in_callback() noexcept {
    return false;
}

void JovuUsb::client_detach(JovuUsbClient& /*client*/, jovu_usb_interface_t /*interface*/) {}

void JovuUsb::hold_scans() noexcept {}

void JovuUsb::release_scans() noexcept {}
