// SPDX-License-Identifier: Apache-2.0

/// @file
/// An event with a typed argument and a handler.
#pragma once

#include <yajl/yajl_tree.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "core/message.h"
#include "events/event_catalogue.h"
#include "json/json.h"

/// @name Event arguments
/// Each reads the member @p key of the event's "args" object into @p out.
/// @return false, leaving @p out as it was, when a node is missing or of another kind.
/// @{

/// A string: an array of numbers, the low 8 bits of each one character. One more zero is kept
/// behind the characters.
inline bool event_ifc_deserialize_type(yajl_val args, const char* key, std::shared_ptr<char>& out) {
    std::shared_ptr<char> text = jovu::read_byte_string(jovu::find(args, {key}, yajl_t_array));
    if (text == nullptr) return false;
    out = std::move(text);
    return true;
}

/// An object with the members of jovu::event_members, numbers that are cut to their field's width.
template <class S>
bool event_ifc_deserialize_type(yajl_val args, const char* key, S& out) {
    const yajl_val object = jovu::find(args, {key}, yajl_t_object);
    S read{};
    const auto read_member = [&](const auto& member) {
        const auto value = jovu::find_integer(object, {member.key});
        auto& field = read.*member.field;
        if (value) field = static_cast<std::decay_t<decltype(field)>>(*value);
        return value.has_value();
    };
    const bool complete =
        std::apply([&](const auto&... member) { return (read_member(member) && ...); },
                   jovu::event_members<S>);
    if (complete) out = read;
    return complete;
}

/// @}

/// Decodes the argument of one kind of event and calls its handler.
/// @tparam Arg a type that event_ifc_deserialize_type() can read.
template <class Arg>
class JovuFirmwareEvent : public JovuEvent {
public:
    using Handler = std::function<void(JovuDeviceAddress, Arg)>;

    /// @param name the event's name on the wire.
    /// @param index the event's number in the firmware; not used when receiving.
    JovuFirmwareEvent(JovuTransport& transport, Handler handler, std::string name, int index)
        : JovuEvent(transport),
          name_(std::move(name)),
          index_(index),
          handler_(std::move(handler)) {}

    const std::string& name() const noexcept { return name_; }
    int index() const noexcept { return index_; }

    /// Reads the first member of "args", whatever its key. Without one the handler gets a default
    /// argument; with "args" or an argument that cannot be read it is not called.
    void execute(JovuDeviceAddress address, std::shared_ptr<JovuMessage>& msg) override {
        Arg argument{};
        const yajl_val args = get_unparsed_args(msg);
        const yajl_val given = msg == nullptr ? nullptr : msg->get_unparsed_data();
        if (args == nullptr && jovu::find(given, {"event", "args"}, yajl_t_any) != nullptr) return;
        if (args != nullptr && args->u.object.len > 0 &&
            !event_ifc_deserialize_type(args, args->u.object.keys[0], argument)) {
            return;
        }
        if (handler_) handler_(address, std::move(argument));
    }

private:
    const std::string name_;
    const int index_;
    const Handler handler_;
};
