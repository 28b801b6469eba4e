// SPDX-License-Identifier: Apache-2.0

/// @file
/// Values on the message channel: their rules, the check against them, strings and fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "firmware/base/types.h"

namespace jovusim {

struct Rule;

/// One member of a structure, or one argument of a command.
struct Member {
    const char* key = nullptr;
    const Rule* rule = nullptr;
};

/// The rule for one value. The functions below build it.
struct Rule {
    enum class Kind : std::uint8_t {
        integer,  ///< a JSON integer from least to most
        single,   ///< a number that a float represents exactly
        real,     ///< any finite number
        string,   ///< signed bytes that end with 0
        array,    ///< exactly count elements
        object,   ///< exactly the count members, in their order
    };

    Kind kind = Kind::integer;
    std::int64_t least = 0;
    std::int64_t most = 0;
    std::size_t count = 0;
    const Rule* element = nullptr;
    const Member* members = nullptr;
};

/// Returns the first violation of the rule, as "[0].ip[3] is 256, outside 0..255", or nothing.
std::optional<std::string> check_value(const Json& value, const Rule& rule);

/// An integer within the limits of a type.
template <typename T>
constexpr Rule integer_of() {
    return {Rule::Kind::integer,
            std::numeric_limits<T>::min(),
            std::numeric_limits<T>::max(),
            0,
            nullptr,
            nullptr};
}

constexpr Rule array_of(std::size_t count, const Rule& element) {
    return {Rule::Kind::array, 0, 0, count, &element, nullptr};
}

template <std::size_t N>
constexpr Rule object_of(const Member (&members)[N]) {
    return {Rule::Kind::object, 0, 0, N, nullptr, members};
}

/// A boolean is the integer 0 or 1 on the wire; true and false are violations.
inline constexpr Rule kBoolean{Rule::Kind::integer, 0, 1, 0, nullptr, nullptr};
inline constexpr Rule kByte = integer_of<std::uint8_t>();
inline constexpr Rule kSignedByte = integer_of<std::int8_t>();
inline constexpr Rule kShort = integer_of<std::int16_t>();
inline constexpr Rule kUnsignedShort = integer_of<std::uint16_t>();
inline constexpr Rule kInt = integer_of<std::int32_t>();
inline constexpr Rule kUnsigned = integer_of<std::uint32_t>();
inline constexpr Rule kEnumeration = kUnsigned;
inline constexpr Rule kServoName = kInt;  ///< the one enumeration with a sign
inline constexpr Rule kFloat{Rule::Kind::single, 0, 0, 0, nullptr, nullptr};
inline constexpr Rule kDouble{Rule::Kind::real, 0, 0, 0, nullptr, nullptr};
inline constexpr Rule kString{Rule::Kind::string, 0, 0, 0, nullptr, nullptr};

/// Only the first element of a buffer is on the wire.
inline constexpr Rule kFloatBuffer = array_of(1, kFloat);
inline constexpr Rule kByteBuffer = array_of(1, kByte);

/// The wire form of a string: an array of signed bytes that ends with 0.
Json string_to_json(const std::string& text);

/// The string in such an array, without its 0; nothing for any other value.
std::optional<std::string> string_from_json(const Json& value);

/// Returns what is wrong with a value that has to be a string, or nothing.
std::optional<std::string> check_string(const Json& value);

/// @name A string field of a structure: an array of exactly size signed or unsigned bytes, padded
/// with 0
/// @{
Json signed_field(std::string text, std::size_t size);
Json unsigned_field(std::string text, std::size_t size);
/// @}

/// The string in such a field, up to its first 0 or its end.
std::string string_of_field(const Json& field);

}  // namespace jovusim
