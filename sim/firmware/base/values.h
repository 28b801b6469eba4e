/// @file
/// Values on the message channel: rules for them, the check of a value, strings and fields.
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

/// What one value may be. Built by the functions below.
struct Rule {
    enum class Kind : std::uint8_t {
        integer,  ///< a JSON integer from least to most
        single,   ///< a number that a float holds exactly
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

/// Says what is wrong with a value and where, as "[0].ip[3] is 256, outside 0..255", or nothing.
std::optional<std::string> check_value(const Json& value, const Rule& rule);

/// An integer of that many bits or fewer, by its type's limits.
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

/// A truth value travels as the integer 0 or 1, never as true or false.
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

/// Of a buffer only the first element travels.
inline constexpr Rule kFloatBuffer = array_of(1, kFloat);
inline constexpr Rule kByteBuffer = array_of(1, kByte);

/// A text as it travels: an array of signed bytes that ends with 0.
Json string_to_json(const std::string& text);

/// The text in such an array, without its 0; nothing for anything else.
std::optional<std::string> string_from_json(const Json& value);

/// Says what is wrong with a value that should be a text, or nothing.
std::optional<std::string> check_string(const Json& value);

/// A field of a structure: exactly size bytes, those behind the text are 0. @name The elements are
/// signed or unsigned bytes, by the field.
/// @{
Json signed_field(std::string text, std::size_t size);
Json unsigned_field(std::string text, std::size_t size);
/// @}

/// The text in such a field, up to its first 0 or its end.
std::string string_of_field(const Json& field);

}  // namespace jovusim
