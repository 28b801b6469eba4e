// SPDX-License-Identifier: Apache-2.0

/// @file
/// Firmware structures to JSON and back, by the lists of their members.
///
/// As with values, reading returns false and leaves the target as it was when the structure itself
/// is missing or of another kind. A member that is missing or of another kind is "no value": it
/// stays zero, and the rest of the structure counts.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "commands/structures.h"
#include "commands/value_codec.h"

namespace jovu {

/// Writes a JSON object with the members of @p value.
template <class S>
void write_structure(yajl_gen gen, S& value);

/// Reads the members of an object node into @p value.
template <class S>
void read_structure(yajl_val object, S& value);

}  // namespace jovu

/// A structure: an object with its members.
template <class S, std::enable_if_t<jovu::is_structure<S>, int> = 0>
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, S& value) {
    JovuMessage::gen_string(gen, key);
    jovu::write_structure(gen, value);
}

template <class S, std::enable_if_t<jovu::is_structure<S>, int> = 0>
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, S& value) {
    const yajl_val node = jovu::find(object, {key}, yajl_t_object);
    if (node == nullptr) return false;
    value = {};
    jovu::read_structure(node, value);
    return true;
}

/// A pointer to structures: an array that holds the first of them alone.
/// @throws JovuException for a null pointer.
template <class S, std::enable_if_t<jovu::is_structure<S>, int> = 0>
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<S>& value) {
    jovu::refuse_null(key, value.get());
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    jovu::write_structure(gen, *value);
    JovuMessage::gen_array_close(gen);
}

/// A pointer to structures: a new array of as many as the array of objects has.
template <class S, std::enable_if_t<jovu::is_structure<S>, int> = 0>
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<S>& value) {
    const yajl_val array = jovu::find(object, {key}, yajl_t_array);
    if (array == nullptr) return false;
    // One more than there are: what is read never points to nothing.
    auto elements = std::make_shared<std::vector<S>>(array->u.array.len + 1);
    for (std::size_t i = 0; i < array->u.array.len; ++i) {
        const yajl_val node = array->u.array.values[i];
        if (!YAJL_IS_OBJECT(node)) return false;
        jovu::read_structure(node, (*elements)[i]);
    }
    value = std::shared_ptr<S>(elements, elements->data());
    return true;
}

namespace jovu {

template <class S>
void write_structure(yajl_gen gen, S& value) {
    const auto write = [&](const auto& member) {
        using Field = typename std::decay_t<decltype(member)>::Type;
        auto& field = value.*member.field;
        if constexpr (std::is_array_v<Field>) {
            const bool is_signed =
                member.bytes == Bytes::by_type && std::is_same_v<std::remove_extent_t<Field>, char>;
            cmd_ifc_serialize_bytes(gen, member.key.data(),
                                    reinterpret_cast<const unsigned char*>(field), sizeof field,
                                    is_signed);
        } else {
            cmd_ifc_serialize_type(gen, member.key.data(), field);
        }
    };
    JovuMessage::gen_map_open(gen);
    std::apply([&](const auto&... member) { (write(member), ...); }, Structure<S>::members);
    JovuMessage::gen_map_close(gen);
}

template <class S>
void read_structure(yajl_val object, S& value) {
    const auto read = [&](const auto& member) {
        using Field = typename std::decay_t<decltype(member)>::Type;
        auto& field = value.*member.field;
        if constexpr (std::is_array_v<Field>) {
            cmd_ifc_deserialize_bytes(object, member.key.data(),
                                      reinterpret_cast<unsigned char*>(field), sizeof field);
        } else {
            cmd_ifc_deserialize_type(object, member.key.data(), field);
        }
    };
    std::apply([&](const auto&... member) { (read(member), ...); }, Structure<S>::members);
}

}  // namespace jovu
