// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's events as one table, and the members of their arguments. The handlers of
/// JovuEventInterface and the names on the wire follow from it.
#pragma once

#include <string_view>
#include <tuple>

#include "jovu/event_interface.h"

namespace jovu {

/// What a handler of JovuEventInterface takes behind the address.
template <class Handler>
struct EventArgument;

template <class A>
struct EventArgument<void (JovuEventInterface::*)(JovuDeviceAddress, A)> {
    using Type = A;
};

/// One event. The type of its argument is that of its handler.
template <auto H>
struct EventRow {
    static constexpr auto handler = H;
    using Argument = typename EventArgument<decltype(H)>::Type;

    int idx;                ///< Its place in the firmware's own table; not used when receiving.
    std::string_view name;  ///< On the wire; the handler has the same.
};

template <auto handler>
constexpr EventRow<handler> event(int idx, std::string_view name) {
    return {idx, name};
}

/// A row; a macro, so that the name on the wire and the handler's cannot differ.
#define JOVU_EVENT(idx, name) ::jovu::event<&JovuEventInterface::name>(idx, #name)

inline constexpr auto event_catalogue =
    std::make_tuple(JOVU_EVENT(0, debug_event), JOVU_EVENT(1, servo_dc_trace_event));

#undef JOVU_EVENT

/// A number in an argument that is an object.
template <class S, class Field>
struct EventMember {
    const char* key;
    Field S::*field;
};
template <class S, class Field>
EventMember(const char*, Field S::*) -> EventMember<S, Field>;

/// The members of an argument that is an object, all of which have to be there.
template <class S>
inline constexpr auto event_members = nullptr;

template <>
inline constexpr auto event_members<servo_trace_msg> = std::make_tuple(
    EventMember{"servo_name", &servo_trace_msg::servo_name},
    EventMember{"servo_state", &servo_trace_msg::servo_state},
    EventMember{"int_cnt", &servo_trace_msg::int_cnt},
    EventMember{"pos_cmd", &servo_trace_msg::pos_cmd}, EventMember{"pos", &servo_trace_msg::pos},
    EventMember{"pwm", &servo_trace_msg::pwm},
    EventMember{"padout_dist", &servo_trace_msg::padout_dist});

}  // namespace jovu
