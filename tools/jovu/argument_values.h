/// @file
/// Reads the values that people and programs give for the firmware's types.
#pragma once

#include <stdexcept>
#include <string>

#include "output.h"
#include "value_type.h"

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

}  // namespace jovu_cli
