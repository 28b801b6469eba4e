// SPDX-License-Identifier: Apache-2.0
#include "support/memory_backend.h"

#include <array>
#include <utility>

#include "usb/usb.h"

namespace {

memory_backend::Writer writer;
std::array<JovuUsbClient*, 2> clients{};

class MemoryConnection : public jovu::Connection {
public:
    explicit MemoryConnection(JovuDeviceAddress address) : Connection(address) {}
    void write(std::initializer_list<Piece> pieces, std::uint32_t interface,
               Follow /*follow*/) override {
        for (const Piece& piece : pieces) {
            if (writer) writer(interface, piece.data, piece.length);
        }
    }
};

}  // namespace

namespace memory_backend {

void connect(JovuDeviceAddress address) {
    client(0).connection_opened(std::make_shared<MemoryConnection>(address));
}

void on_write(Writer new_writer) {
    writer = std::move(new_writer);
}

JovuUsbClient& client(unsigned interface) {
    return *clients.at(interface);
}

}  // namespace memory_backend

void JovuUsb::write(const unsigned char* data, unsigned int length, JovuDeviceAddress /*address*/,
                    jovu_usb_interface_t interface) {
    if (writer) writer(interface, data, length);
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

void JovuUsb::reopen(JovuDeviceAddress /*address*/) {}

void JovuUsb::set_device_filter(JovuDeviceFilter /*filter*/) {}

std::vector<JovuDeviceInfo> JovuUsb::list_devices() {
    return {};
}

std::vector<JovuUsbDevice> JovuUsb::list_attached() {
    return {};
}

std::shared_ptr<jovu::Connection> JovuUsb::connection(JovuDeviceAddress address) {
    return std::make_shared<MemoryConnection>(address);
}

bool JovuUsb::is_watching() noexcept {
    return true;
}

bool JovuUsb::in_callback() noexcept {
    return false;
}

void JovuUsb::client_detach(JovuUsbClient& /*client*/, jovu_usb_interface_t /*interface*/) {}

void JovuUsb::pause_scans() noexcept {}

void JovuUsb::resume_scans() noexcept {}
