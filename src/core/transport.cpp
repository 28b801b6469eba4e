// SPDX-License-Identifier: Apache-2.0

/// @file
/// The transport: its lifetime, notifications and the receive path. Sending is in exchange.cpp.
#include "jovu/transport.h"

#include <string>
#include <utility>

#include "base/never_destroyed.h"
#include "core/message.h"
#include "core/message_attributes.h"
#include "core/transport_state.h"
#include "jovu/exception.h"
#include "json/json.h"
#include "json/json_tree.h"
#include "usb/usb.h"

JovuTransport::JovuTransport(JovuEventInterface* events) : state_(std::make_shared<State>(events)) {
    JovuUsb::client_register(*this, JovuUsb::JOVU_USB_INTERFACE_MESSAGES);
}

JovuTransport::~JovuTransport() {
    JovuTransport::shutdown();
    // In a callback, as when a handler calls std::exit() and the client is a static object, what
    // called the handler still uses the state.
    if (JovuUsb::in_callback()) jovu::keep_until_exit(state_);
}

void JovuTransport::shutdown() {
    // Exchanges are ended first, so that the backend does not wait for a response below.
    state_->notifications.close();
    state_->exchanges.close();
    state_->wake_exchanges();
    if (JovuUsb::in_callback()) {
        JovuUsb::client_detach(*this, JovuUsb::JOVU_USB_INTERFACE_MESSAGES);
        return;
    }
    state_->registration.end(
        [this] { JovuUsb::client_unregister(*this, JovuUsb::JOVU_USB_INTERFACE_MESSAGES); });
    state_->exchanges.wait();
    state_->notifications.wait();
}

void JovuTransport::close(JovuDeviceAddress address) {
    JovuUsb::close(address);
}

void JovuTransport::reopen(JovuDeviceAddress address) {
    JovuUsb::reopen(address);
}

void JovuTransport::set_device_filter(JovuDeviceFilter filter) {
    JovuUsb::set_device_filter(std::move(filter));
}

std::vector<JovuDeviceInfo> JovuTransport::list_devices() {
    return JovuUsb::list_devices();
}

void JovuTransport::device_unavailable(const JovuDeviceInfo& /*device*/) {}

std::vector<JovuDeviceAddress> JovuTransport::list_connected() const {
    return JovuUsb::list_connected();
}

std::vector<JovuUsbDevice> JovuTransport::list_attached() const {
    return JovuUsb::list_attached();
}

bool JovuTransport::is_watching() noexcept {
    return JovuUsb::is_watching();
}

std::vector<std::string> JovuTransport::attrs(unsigned flags) {
    std::vector<std::string> words;
    for (const jovu::AttributeWord& attribute : jovu::kAttributeWords) {
        if ((flags & attribute.bit) != 0) words.emplace_back(attribute.word);
    }
    return words;
}

JovuTransport::State::Route JovuTransport::State::route(JovuDeviceAddress address) {
    const jovu::MutexLock lock(peers_mutex);
    const auto found = peers.find(address);
    if (found == peers.end()) return {nullptr, nullptr};
    return {found->second.connection, &found->second.cancellable};
}

JovuTransport::State::Peer& JovuTransport::State::peer(JovuDeviceAddress address) {
    const jovu::MutexLock lock(peers_mutex);
    return peers[address];
}

void JovuTransport::State::wake_exchanges() {
    {
        const jovu::MutexLock lock(peers_mutex);
        for (const auto& [address, peer] : peers) {
            if (peer.connection != nullptr) peer.connection->exchange_lock().wake();
        }
    }
    waiting.wake_all();
}

JovuEventInterface* JovuTransport::event_interface() const noexcept {
    return state_->events;
}

void JovuTransport::set_strict_matching(bool strict) {
    if (state_->exchanged) {
        throw JovuException("Strict matching must be chosen before the first exchange.",
                            JovuError::rejected);
    }
    if (strict) JovuMessage::start_ids_anywhere();
    state_->strict = strict;
}

void JovuTransport::connection_opened(const std::shared_ptr<jovu::Connection>& connection) {
    const JovuDeviceAddress address = connection->address();
    State::Peer& peer = state_->peer(address);
    // The rest of a frame that another connection began is not this device's response.
    if (state_->strict) peer.decoder = jovu::FrameDecoder();
    peer.disconnected.emplace([this, address, connection] {
        connection->exchange_lock().wait_until_free();
        device_disconnected(address);
    });
    {
        const jovu::MutexLock lock(state_->peers_mutex);
        peer.connection = connection;
    }
    usb_device_connected(address);
}

void JovuTransport::usb_device_connected(JovuDeviceAddress address) {
    state_->notifications.post([this, address] { device_connected(address); });
}

void JovuTransport::usb_device_disconnected(JovuDeviceAddress address) {
    State::Peer& peer = state_->peer(address);
    {
        const jovu::MutexLock lock(state_->peers_mutex);
        peer.connection = nullptr;
    }
    state_->waiting.wake(address);
    if (!peer.disconnected) {  // The client registered after the device had connected.
        state_->notifications.post([this, address] { device_disconnected(address); });
        return;
    }
    state_->notifications.post(std::move(*peer.disconnected));
    peer.disconnected.reset();
}

void JovuTransport::usb_device_unavailable(const JovuDeviceInfo& device) {
    state_->notifications.post([this, device] { device_unavailable(device); });
}

void JovuTransport::data_received(unsigned char* data, unsigned int length,
                                  JovuDeviceAddress address) {
    state_->peer(address).decoder.feed(data, length,
                                       [this, address](unsigned char* payload, unsigned int size) {
                                           process_data_receive(payload, size, address);
                                       });
}

void JovuTransport::process_data_receive(unsigned char* payload, unsigned int length,
                                         JovuDeviceAddress address) {
    const jovu::JsonTree tree({reinterpret_cast<const char*>(payload), length},
                              state_->tree_memory);
    const yajl_val envelope = jovu::find(tree.get(), {"transport"}, yajl_t_object);
    const yajl_val data = jovu::find(tree.get(), {"data"}, yajl_t_object);
    if (envelope == nullptr || data == nullptr) return;
    std::shared_ptr<JovuMessage> message;
    try {
        message = parse_message(envelope, data);
    } catch (const JovuException&) {
        // A bad envelope is the device's mistake: this frame is dropped, the next may be good.
        return;
    }
    if (message->is_response()) {
        const char* const command = jovu::find_string(data, {"command", "name"});
        const jovu::WaitingRequests::Sender sender{address, state_->peer(address).connection.get(),
                                                   command == nullptr ? "" : command};
        state_->waiting.respond(message, sender, state_->strict);
    } else {
        message->handle_receive(address, message);
    }
    message->forget_data();
}

std::shared_ptr<JovuMessage> JovuTransport::parse_message(yajl_val_s* transport, yajl_val_s* data) {
    const yajl_val words = jovu::find(transport, {"attrs"}, yajl_t_array);
    if (words == nullptr) throw JovuException("Transport failed to supply attributes.");
    const auto id = jovu::find_integer(transport, {"id"});
    if (!id) throw JovuException("Transport failed to supply id.");
    unsigned flags = 0;
    for (std::size_t i = 0; i < words->u.array.len; ++i) {
        const char* const word = YAJL_GET_STRING(words->u.array.values[i]);
        if (word != nullptr) flags |= jovu::attribute_bit(word);
    }
    return JovuMessage::elevate(JovuMessage(*this, flags, static_cast<unsigned>(*id), data));
}
