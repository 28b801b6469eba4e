// SPDX-License-Identifier: Apache-2.0
#include "core/message.h"

#include <array>
#include <random>

#include "jovu/event_interface.h"
#include "jovu/exception.h"
#include "jovu/transport.h"
#include "json/json.h"
#include "json/json_generator.h"

std::atomic<std::uint32_t> JovuMessage::_msg_cnt{0};

namespace {

/// The body keys; the index is the kind of message that the key stands for.
constexpr std::array<const char*, 2> _data_type_paths{"command", "event"};

/// Whether the generator has refused anything since this thread began to compile a message. What it
/// refuses it leaves out, and the rest slides into the gap: no such text may reach a device.
thread_local bool generator_refused = false;

yajl_gen_status noted(yajl_gen_status status) noexcept {
    if (status != yajl_gen_status_ok) generator_refused = true;
    return status;
}

yajl_val body_of(const std::shared_ptr<JovuMessage>& msg) {
    return msg == nullptr ? nullptr : msg->get_unparsed_data();
}

const char** keys_of(yajl_val object) {
    return YAJL_IS_OBJECT(object) ? YAJL_GET_OBJECT(object)->keys : nullptr;
}

}  // namespace

JovuMessage::JovuMessage(JovuTransport& transport, unsigned flags, yajl_val data)
    : JovuMessage(transport, flags, ++_msg_cnt, data) {}

JovuMessage::JovuMessage(JovuTransport& transport, unsigned flags, unsigned id, yajl_val data)
    : flags_(flags), id_(id), transport_(&transport), data_(data) {}

JovuMessage::JovuMessage(const JovuMessage& other)
    : kind_(other.kind_),
      flags_(other.flags_),
      id_(other.id_),
      transport_(other.transport_),
      data_(other.data_) {}

JovuMessage::JovuMessage(const JovuMessage& other, Kind kind) : JovuMessage(other) {
    kind_ = kind;
}

JovuMessage& JovuMessage::operator=(const JovuMessage& other) {
    if (this == &other) return *this;
    id_ = other.id_;
    flags_ = other.flags_;
    transport_ = other.transport_;
    data_ = other.data_;
    kind_ = other.kind_;
    return *this;
}

JovuMessage::~JovuMessage() = default;

void JovuMessage::set_response(std::shared_ptr<JovuMessage>& response) {
    response_ = response;
}

void JovuMessage::compile_data(yajl_gen g) {
    gen_map_open(g);
    gen_map_close(g);
}

void JovuMessage::handle_receive(JovuDeviceAddress /*address*/,
                                 std::shared_ptr<JovuMessage>& /*msg*/) {}

std::string JovuMessage::compile() {
    jovu::JsonGenerator generator;
    yajl_gen g = generator.get();
    generator_refused = false;
    gen_map_open(g);
    gen_string(g, "transport");
    gen_map_open(g);
    gen_string(g, "attrs");
    gen_array_open(g);
    for (const jovu::AttributeWord& attribute : jovu::kAttributeWords) {
        if ((flags_ & attribute.bit) != 0) gen_string(g, attribute.word);
    }
    gen_array_close(g);
    gen_string(g, "id");
    gen_integer(g, id_);
    gen_map_close(g);
    gen_string(g, "data");
    compile_data(g);
    gen_map_close(g);
    if (generator_refused)
        throw JovuException("Send failed - a value has no JSON form.", JovuError::rejected);
    return generator.take_text();
}

void JovuMessage::start_ids_anywhere() {
    static std::atomic<bool> started{false};
    constexpr std::uint32_t kRange = std::uint32_t{1} << 30U;
    std::uint32_t start = 0;
    try {
        start = std::random_device{}() % kRange;
    } catch (const std::exception& error) {
        throw JovuException(std::string("No random numbers for message ids: ") + error.what());
    }
    if (!started.exchange(true)) _msg_cnt += start;
}

void JovuMessage::send(JovuDeviceAddress address) {
    transport_->send_message(*this, address);
}

yajl_gen_status JovuMessage::gen_integer(yajl_gen g, long long value) {
    return noted(jovu::write_integer(g, value));
}

yajl_gen_status JovuMessage::gen_double(yajl_gen g, double value) {
    return noted(jovu::write_double(g, value));
}

yajl_gen_status JovuMessage::gen_number(yajl_gen g, const std::string& literal) {
    return noted(yajl_gen_number(g, literal.data(), literal.size()));
}

yajl_gen_status JovuMessage::gen_string(yajl_gen g, std::string_view text) {
    return noted(
        yajl_gen_string(g, reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

yajl_gen_status JovuMessage::gen_null(yajl_gen g) {
    return noted(yajl_gen_null(g));
}

yajl_gen_status JovuMessage::gen_bool(yajl_gen g, bool value) {
    return noted(yajl_gen_bool(g, value ? 1 : 0));
}

yajl_gen_status JovuMessage::gen_map_open(yajl_gen g) {
    return noted(yajl_gen_map_open(g));
}

yajl_gen_status JovuMessage::gen_map_close(yajl_gen g) {
    return noted(yajl_gen_map_close(g));
}

yajl_gen_status JovuMessage::gen_array_open(yajl_gen g) {
    return noted(yajl_gen_array_open(g));
}

yajl_gen_status JovuMessage::gen_array_close(yajl_gen g) {
    return noted(yajl_gen_array_close(g));
}

std::shared_ptr<JovuMessage> JovuMessage::elevate(const JovuMessage& msg) {
    for (std::size_t kind = 0; kind < _data_type_paths.size(); ++kind) {
        if (jovu::find(msg.data_, {_data_type_paths[kind]}, yajl_t_object) == nullptr) continue;
        if (kind == kCommand) return std::make_shared<JovuCommand>(msg);
        return std::make_shared<JovuEvent>(msg);
    }
    return std::make_shared<JovuMessage>(msg);
}

JovuCommand::JovuCommand(JovuTransport& transport)
    : JovuMessage(transport, jovu::kCommandFlags, nullptr) {
    kind_ = kCommand;
}

JovuCommand::JovuCommand(const JovuMessage& msg) : JovuMessage(msg, kCommand) {}

void JovuCommand::compile_data(yajl_gen g) {
    gen_map_open(g);
    gen_string(g, _data_type_paths[kCommand]);
    gen_map_open(g);
    compile_command(g);
    gen_map_close(g);
    gen_map_close(g);
}

void JovuCommand::compile_command(yajl_gen /*g*/) {}

yajl_val JovuCommand::get_unparsed_command(const std::shared_ptr<JovuMessage>& msg) {
    return jovu::find(body_of(msg), {"command"}, yajl_t_object);
}

std::string JovuCommand::get_unparsed_cmd_name(const std::shared_ptr<JovuMessage>& msg) {
    const char* const name = jovu::find_string(body_of(msg), {"command", "name"});
    return name == nullptr ? std::string() : std::string(name);
}

int JovuCommand::get_unparsed_cmd_idx(const std::shared_ptr<JovuMessage>& msg) {
    return static_cast<int>(jovu::find_integer(body_of(msg), {"command", "idx"}).value_or(0));
}

yajl_val JovuCommand::get_unparsed_args(const std::shared_ptr<JovuMessage>& msg) {
    return jovu::find(body_of(msg), {"command", "args"}, yajl_t_object);
}

const char** JovuCommand::get_unparsed_arg_keys(const std::shared_ptr<JovuMessage>& msg) {
    return keys_of(get_unparsed_args(msg));
}

yajl_val JovuCommand::get_unparsed_return(const std::shared_ptr<JovuMessage>& msg) {
    return jovu::find(body_of(msg), {"command", "__return__"}, yajl_t_any);
}

JovuEvent::JovuEvent(JovuTransport& transport)
    : JovuMessage(transport, jovu::kEventFlags, nullptr) {
    kind_ = kEvent;
}

JovuEvent::JovuEvent(const JovuMessage& msg) : JovuMessage(msg, kEvent) {}

void JovuEvent::handle_receive(JovuDeviceAddress address, std::shared_ptr<JovuMessage>& msg) {
    const char* const name = jovu::find_string(body_of(msg), {"event", "name"});
    if (name == nullptr) return;
    JovuEventInterface* const events = transport()->event_interface();
    if (events == nullptr) return;
    JovuEvent* const event = events->get_firmware_event(name);
    if (event != nullptr) event->execute(address, msg);
}

void JovuEvent::execute(JovuDeviceAddress /*address*/, std::shared_ptr<JovuMessage>& /*msg*/) {}

yajl_val JovuEvent::get_unparsed_args(const std::shared_ptr<JovuMessage>& msg) {
    return jovu::find(body_of(msg), {"event", "args"}, yajl_t_object);
}

const char** JovuEvent::get_unparsed_arg_keys(const std::shared_ptr<JovuMessage>& msg) {
    return keys_of(get_unparsed_args(msg));
}
