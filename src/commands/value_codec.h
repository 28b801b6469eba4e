// SPDX-License-Identifier: Apache-2.0

/// @file
/// Firmware values to JSON and back: numbers, buffers and texts. Structures are made of these, see
/// structure_codec.h.
///
/// Writing puts the key, then the value. Reading looks the key up in an object; it returns false,
/// leaving the target as it was, when the member is missing or of another kind.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_tree.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

#include "core/message.h"
#include "json/json.h"

namespace jovu {

/// @throws JovuException that names the argument when @p pointer is null.
void refuse_null(const char* key, const void* pointer);

}  // namespace jovu

/// An integer in its own signedness; enumerations as their underlying integer; `bool` as 0 or 1.
template <class T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, int> = 0>
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, T& value) {
    JovuMessage::gen_string(gen, key);
    if constexpr (std::is_same_v<T, bool>) {
        // By its byte: in a structure that was filled as memory it may hold anything.
        unsigned char byte = 0;
        std::memcpy(&byte, &value, sizeof byte);
        JovuMessage::gen_integer(gen, byte != 0 ? 1 : 0);
    } else {
        JovuMessage::gen_integer(gen, static_cast<long long>(value));
    }
}

/// The low bits of a number's integer reading; a `bool` is true when that is not 0.
template <class T, std::enable_if_t<std::is_integral_v<T> || std::is_enum_v<T>, int> = 0>
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, T& value) {
    const auto number = jovu::find_integer(object, {key});
    if (!number) return false;
    if constexpr (std::is_same_v<T, bool>) {
        value = *number != 0;
    } else {
        value = static_cast<T>(*number);
    }
    return true;
}

/// A floating-point number, as the exact double of its value.
/// @throws JovuException for NaN and the infinities, which JSON cannot say.
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, double& value);
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, float& value);

/// A number's floating-point reading; narrowed to float, one that is too large is infinite.
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, double& value);
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, float& value);

/// A buffer: an array of its first element alone, however long it is.
/// @throws JovuException for a null buffer.
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<float>& value);
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<unsigned char>& value);

/// A buffer: a new one with as many elements as the array of numbers has.
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<float>& value);
bool cmd_ifc_deserialize_type(yajl_val object, const char* key,
                              std::shared_ptr<unsigned char>& value);

/// A text: an array of its bytes as signed values, the final NUL included.
/// @throws JovuException for a null text.
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<char>& value);

/// The same of a view, which needs no NUL behind it.
/// @throws JovuException also for a text with a zero byte, where the device would take it to end.
void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::string_view& value);

/// A view owns nothing: the text that a device echoes is not kept.
inline bool cmd_ifc_deserialize_type(yajl_val /*object*/, const char* /*key*/,
                                     std::string_view& /*value*/) {
    return false;
}

/// A text: an array of numbers, the low 8 bits of each. One more zero is kept behind it.
bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<char>& value);

/// @name Fixed arrays of bytes
/// An array of exactly @p size numbers when written. When read, elements beyond @p size are left
/// out and bytes beyond the last element stay as they are; so do all of them when the array is
/// missing or one of the elements is no number.
/// @param is_signed whether each byte is written as -128 to 127 rather than as 0 to 255.
/// @{
void cmd_ifc_serialize_bytes(yajl_gen gen, const char* key, const unsigned char* bytes,
                             std::size_t size, bool is_signed);
void cmd_ifc_deserialize_bytes(yajl_val object, const char* key, unsigned char* bytes,
                               std::size_t size);
/// @}
