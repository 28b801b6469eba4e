/// @file
/// The transport: its life, its notices and reception. Sending is in transport_send.cpp.
#include "jovu/transport.h"

#include <string>
#include <utility>

#include "base/never_destroyed.h"
#include "core/attribute_words.h"
#include "core/last_send_error.h"
#include "core/message.h"
#include "core/transport_state.h"
#include "jovu/exception.h"
#include "json/json.h"
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
    // Senders are turned away first, so that nothing the link waits for takes a response's time.
    state_->notices.close();
    state_->exchanges.close();
    state_->device_mutexes.close();
    state_->waiting.wake_all();
    if (JovuUsb::in_callback()) {
        JovuUsb::client_detach(*this, JovuUsb::JOVU_USB_INTERFACE_MESSAGES);
        return;
    }
    state_->registration.end(
        [this] { JovuUsb::client_unregister(*this, JovuUsb::JOVU_USB_INTERFACE_MESSAGES); });
    state_->exchanges.wait();
    state_->notices.wait();
}

void JovuTransport::close(JovuDeviceAddress address) {
    JovuUsb::close(address);
}

std::vector<JovuDeviceAddress> JovuTransport::list_connected() const {
    return JovuUsb::list_connected();
}

std::vector<JovuUsbDevice> JovuTransport::list_attached() const {
    return JovuUsb::list_attached();
}

bool JovuTransport::is_watching() noexcept {
    return JovuUsb::is_watching();
}

std::string JovuTransport::last_send_error() {
    return jovu::last_send_error();
}

std::vector<std::string> JovuTransport::attrs(unsigned flags) {
    std::vector<std::string> words;
    for (const jovu::AttributeWord& attribute : jovu::kAttributeWords) {
        if ((flags & attribute.bit) != 0) words.emplace_back(attribute.word);
    }
    return words;
}

jovu::NoticeThreads::Prepared JovuTransport::State::farewell(JovuTransport& transport,
                                                             JovuDeviceAddress address,
                                                             std::shared_ptr<jovu::SendLock> lock) {
    return jovu::NoticeThreads::Prepared([&transport, address, lock = std::move(lock)] {
        if (lock != nullptr) lock->wait_idle();
        transport.device_disconnected(address);
    });
}

JovuEventInterface* JovuTransport::event_interface() const noexcept {
    return state_->events;
}

void JovuTransport::set_strict_matching(bool strict) {
    if (state_->exchanged) {
        throw JovuException("Strict matching must be chosen before the first exchange.");
    }
    if (strict) JovuMessage::start_ids_anywhere();
    state_->strict = strict;
}

void JovuTransport::usb_device_connected(JovuDeviceAddress address) {
    // The rest of a frame that another connection began is not this device's response.
    if (state_->strict) state_->rx_states.erase(address);
    std::shared_ptr<jovu::SendLock> lock =
        state_->device_mutexes.connect(address, JovuUsb::connection(address));
    state_->farewells.insert_or_assign(address, State::farewell(*this, address, std::move(lock)));
    state_->notices.post([this, address] { device_connected(address); });
}

void JovuTransport::usb_device_disconnected(JovuDeviceAddress address) {
    // Retired before the wake-up: a sender that enters the table in between finds it retired.
    std::shared_ptr<jovu::SendLock> lock = state_->device_mutexes.disconnect(address);
    state_->waiting.wake(address);
    auto prepared = state_->farewells.extract(address);
    state_->notices.post(prepared.empty() ? State::farewell(*this, address, std::move(lock))
                                          : std::move(prepared.mapped()));
}

void JovuTransport::data_received(unsigned char* data, unsigned int length,
                                  JovuDeviceAddress address) {
    state_->rx_states[address].feed(data, length,
                                    [this, address](unsigned char* payload, unsigned int size) {
                                        process_data_receive(payload, size, address);
                                    });
}

void JovuTransport::process_data_receive(unsigned char* payload, unsigned int length,
                                         JovuDeviceAddress address) {
    const std::string text(reinterpret_cast<const char*>(payload), length);
    const jovu::JsonTree tree = jovu::parse_json(text);
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
        const jovu::WaitingRequests::Sender sender{address, JovuUsb::connection(address),
                                                   JovuCommand::get_unparsed_cmd_name(message)};
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
