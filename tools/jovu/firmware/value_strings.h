// SPDX-License-Identifier: Apache-2.0

/// @file
/// Values of the firmware's types as strings: arguments read, results shown.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/json.h"
#include "firmware/value_type.h"

namespace jovu_cli {

/// The reason why a value is refused, to follow the value in a message: "is out of range".
class BadValue : public std::runtime_error {
public:
    /// @param where the member or element; empty for the whole value.
    /// @param quoted the wrong part of the value, to follow @p why; messages about the content of a
    ///     file omit it.
    explicit BadValue(const std::string& why, std::string where = {}, std::string quoted = {})
        : std::runtime_error(why), where_(std::move(where)), quoted_(std::move(quoted)) {}

    const std::string& where() const noexcept { return where_; }
    const std::string& quoted() const noexcept { return quoted_; }

private:
    std::string where_;
    std::string quoted_;
};

/// Reads JSON that another program wrote. Objects that hold a member twice are refused, as are
/// bytes that are not UTF-8.
/// @param max_depth the deepest nesting of objects and arrays that is accepted.
/// @throws BadValue.
Json parse_strict_json(const std::string& input, int max_depth = 32);

/// Checks a value that was read from JSON.
/// @return as read_value().
/// @throws BadValue.
Json check_value(const ValueType& type, const Json& json);

/// Reads a value of a command line. A structure is a JSON object.
/// @return whole numbers as integers, bytes as an array of 0 to 255, a buffer as an array, a
///     structure as an object with the given members.
/// @throws BadValue.
Json read_value(const ValueType& type, const std::string& input);

/// @return the values that a type accepts: "0 to 255", "text of at most 32 bytes"; empty for a
///     structure.
std::string allowed_values(const ValueType& type);

/// @return bytes in a form that parse_bytes() reads: six as a hardware address in hexadecimal
///     ("02:4a:00:00:00:01"), any other number as decimals with dots ("192.168.1.7").
std::string bytes_string(const unsigned char* bytes, std::size_t size);

/// @return the string in an array that may be padded with NULs.
std::string padded_string(const unsigned char* bytes, std::size_t size);

/// Reads decimals with dots or commas, or hexadecimals with colons.
/// @return a byte for each part of the string; nothing when a part is not a byte.
std::optional<std::vector<unsigned char>> parse_bytes(const std::string& input);

/// @return a result as lines. A structure has one for each member, with the member's key as in an
///     argument.
std::vector<std::string> value_lines(const Json& value);

}  // namespace jovu_cli
