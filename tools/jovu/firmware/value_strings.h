/// @file
/// Reads the values that people and programs give for the firmware's types.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "firmware/value_type.h"
#include "terminal/output.h"

namespace jovu_cli {

/// Why a value cannot be taken, in words that follow the value: "is out of range".
class BadValue : public std::runtime_error {
public:
    /// @param where which member or element it is, when not the whole value; else empty.
    /// @param quoted what the value holds there, to be put behind @p why; a message about the
    ///     content of a file leaves it out.
    explicit BadValue(const std::string& why, std::string where = {}, std::string quoted = {})
        : std::runtime_error(why), where_(std::move(where)), quoted_(std::move(quoted)) {}

    const std::string& where() const noexcept { return where_; }
    const std::string& quoted() const noexcept { return quoted_; }

private:
    std::string where_;
    std::string quoted_;
};

/// Reads a value as it stands on a command line. A structure is a JSON object.
/// @return whole numbers as integers, bytes as an array of 0 to 255, a buffer as an array, a
///     structure as an object that holds the members that were given.
/// @throws BadValue.
Json read_value(const ValueType& type, const std::string& text);

/// @return the values that a type accepts: "0 to 255", "text of at most 32 bytes"; empty for a
///     structure.
std::string allowed_values(const ValueType& type);

/// Bytes as a text that parse_bytes() reads: six of them as a hardware address in hexadecimal
/// digits ("02:4a:00:00:00:01"), any other number as decimals with dots ("192.168.1.7").
std::string bytes_string(const unsigned char* bytes, std::size_t size);

/// The text in an array that is padded with NULs, or that it fills.
std::string padded_string(const unsigned char* bytes, std::size_t size);

/// Reads decimals with dots or commas, or hexadecimals with colons.
/// @return as many bytes as the text has parts; nothing when a part is no byte.
std::optional<std::vector<unsigned char>> parse_bytes(const std::string& text);

/// A result as lines. A structure has a line for each member, with the key by which the member can
/// be given as an argument.
std::vector<std::string> value_lines(const Json& value);

}  // namespace jovu_cli
