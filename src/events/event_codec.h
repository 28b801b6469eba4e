/// @file
/// Reading event arguments.
#pragma once

#include <yajl/yajl_tree.h>

#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "events/event_catalogue.h"
#include "json/byte_text.h"
#include "json/json.h"

/// @name Event arguments
/// Each reads the member @p key of the event's "args" object into @p out.
/// @return false, leaving @p out as it was, when a node is missing or of another kind.
/// @{

/// A string: an array of numbers, the low 8 bits of each one character. One more zero is kept
/// behind the characters.
inline bool event_ifc_deserialize_type(yajl_val args, const char* key, std::shared_ptr<char>& out) {
    std::shared_ptr<char> text = jovu::read_byte_text(jovu::find(args, {key}, yajl_t_array));
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
