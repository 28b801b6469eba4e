/// @file
/// An event with a typed argument and a handler.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/message.h"
#include "events/event_codec.h"
#include "json/json.h"

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
