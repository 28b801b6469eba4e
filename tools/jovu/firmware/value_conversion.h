// SPDX-License-Identifier: Apache-2.0

/// @file
/// Converts the firmware's values between their C++ types and JSON. Only firmware_commands.cpp
/// includes it, and instantiates it for every type of the catalogue.
///
/// Arguments have the form that read_arguments() returns: checked, whole numbers as integers, bytes
/// as arrays of 0 to 255, omitted members absent. Results have strings as strings, and bytes in the
/// form of arguments.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <type_traits>

#include "cli/json.h"
#include "commands/structures.h"
#include "commands/type_names.h"
#include "firmware/value_strings.h"
#include "firmware/value_type.h"

namespace jovu_cli {

/// The type that a pointer to structures, strings or buffers points to; void for other types.
template <class T>
struct Pointee {
    using Type = void;
};
template <class T>
struct Pointee<std::shared_ptr<T>> {
    using Type = T;
};

template <class T>
inline constexpr bool is_shared_string = std::is_same_v<T, std::shared_ptr<char>>;

template <class T>
inline constexpr bool is_shared_buffer =
    std::is_arithmetic_v<typename Pointee<T>::Type> && !is_shared_string<T>;

template <class T>
inline constexpr bool is_shared_structure = jovu::is_structure<typename Pointee<T>::Type>;

template <class T>
ValueType describe();

template <class Integer>
void describe_range(ValueType& type) {
    type.lowest = std::int64_t{
        std::numeric_limits<Integer>::min()};  // NOLINT(bugprone-signed-char-misuse): a number
    type.highest = std::numeric_limits<Integer>::max();
}

template <class Number>
void describe_range_of_number(ValueType& type) {
    type.largest = static_cast<double>(std::numeric_limits<Number>::max());
    type.smallest = static_cast<double>(std::numeric_limits<Number>::denorm_min());
}

template <class S>
void describe_structure(ValueType& type) {
    type.kind = Kind::structure;
    type.name = jovu::Structure<S>::name;
    const auto add = [&](const auto& member) {
        using Field = typename std::decay_t<decltype(member)>::Type;
        type.members.push_back({std::string(member.key), describe<Field>()});
    };
    std::apply([&](const auto&... member) { (add(member), ...); }, jovu::Structure<S>::members);
}

/// @return the description of T.
template <class T>
ValueType describe() {
    ValueType type;
    if constexpr (jovu::is_structure<T>) {
        describe_structure<T>(type);
    } else if constexpr (is_shared_structure<T>) {
        describe_structure<typename Pointee<T>::Type>(type);
    } else if constexpr (std::is_array_v<T>) {
        using Element = std::remove_extent_t<T>;
        type.kind = Kind::bytes;
        type.size = std::extent_v<T>;
        type.holds_string = std::is_same_v<Element, char>;
        type.name = std::string(type.holds_string ? "char" : "unsigned char") + "[" +
                    std::to_string(type.size) + "]";
    } else {
        type.name = jovu::TypeName<T>::value;
        if constexpr (std::is_same_v<T, bool>) {
            type.kind = Kind::boolean;
        } else if constexpr (std::is_integral_v<T>) {
            type.kind = Kind::integer;
            describe_range<T>(type);
        } else if constexpr (std::is_enum_v<T>) {
            type.kind = Kind::integer;
            describe_range<std::underlying_type_t<T>>(type);
        } else if constexpr (std::is_floating_point_v<T>) {
            type.kind = Kind::number;
            describe_range_of_number<T>(type);
        } else if constexpr (is_shared_string<T>) {
            type.kind = Kind::string;
        } else if constexpr (is_shared_buffer<T>) {
            using Element = typename Pointee<T>::Type;
            type.kind = Kind::buffer;
            if constexpr (std::is_integral_v<Element>) {
                type.element = Kind::integer;
                describe_range<Element>(type);
            } else {
                type.element = Kind::number;
                describe_range_of_number<Element>(type);
            }
        } else {
            static_assert(std::is_void_v<T>, "the program cannot read and show this type");
        }
    }
    return type;
}

template <class S>
void read_members(const Json& json, S& value);

/// @return the C++ value of a checked JSON value.
template <class T>
T value_from(const Json& json) {
    if constexpr (jovu::is_structure<T>) {
        T value{};
        read_members(json, value);
        return value;
    } else if constexpr (is_shared_structure<T>) {
        auto value = std::make_shared<typename Pointee<T>::Type>();
        read_members(json, *value);
        return value;
    } else if constexpr (is_shared_string<T>) {
        const auto copy = std::make_shared<std::string>(json.get_ref<const std::string&>());
        return T(copy, copy->data());
    } else if constexpr (is_shared_buffer<T>) {
        using Element = typename Pointee<T>::Type;
        T buffer(new Element[json.size()], std::default_delete<Element[]>());
        std::transform(json.begin(), json.end(), buffer.get(),
                       [](const Json& element) { return element.get<Element>(); });
        return buffer;
    } else if constexpr (std::is_enum_v<T>) {
        return static_cast<T>(json.get<std::underlying_type_t<T>>());
    } else {
        return json.get<T>();
    }
}

template <class S>
void read_members(const Json& json, S& value) {
    const auto read = [&](const auto& member) {
        using Field = typename std::decay_t<decltype(member)>::Type;
        const auto given = json.find(std::string(member.key));
        if (given == json.end()) {
            return;
        }
        auto& field = value.*member.field;
        if constexpr (std::is_array_v<Field>) {
            using Element = std::remove_extent_t<Field>;
            std::transform(given->begin(), given->end(), field, [](const Json& byte) {
                return static_cast<Element>(byte.get<unsigned char>());
            });
        } else {
            field = value_from<Field>(*given);
        }
    };
    std::apply([&](const auto&... member) { (read(member), ...); }, jovu::Structure<S>::members);
}

/// @return a number with the fewest digits that identify it: 0.1 for 0.10000000149011612.
template <class Number>
Json json_number(Number value) {
    char digits[64];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    double shortest = 0;
    if (error != std::errc() || std::from_chars(digits, end, shortest).ec != std::errc()) {
        return static_cast<double>(value);
    }
    return shortest;
}

/// @return a result as JSON.
template <class T>
Json json_from(const T& value) {
    if constexpr (jovu::is_structure<T>) {
        Json object = Json::object();
        const auto add = [&](const auto& member) {
            object[std::string(member.key)] = json_from(value.*member.field);
        };
        std::apply([&](const auto&... member) { (add(member), ...); }, jovu::Structure<T>::members);
        return object;
    } else if constexpr (std::is_array_v<T>) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(value);
        constexpr bool holds_string = std::is_same_v<std::remove_extent_t<T>, char>;
        return holds_string ? padded_string(bytes, sizeof value)
                            : bytes_string(bytes, sizeof value);
    } else if constexpr (is_shared_string<T>) {
        return value ? Json(value.get()) : Json();
    } else if constexpr (std::is_enum_v<T>) {
        return static_cast<std::underlying_type_t<T>>(value);
    } else if constexpr (std::is_floating_point_v<T>) {
        return json_number(value);
    } else {
        return value;
    }
}

}  // namespace jovu_cli
