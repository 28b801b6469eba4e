// SPDX-License-Identifier: Apache-2.0

/// @file
/// The types of the firmware's values, described at run time for help, completion and arguments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace jovu_cli {

/// How a value is written on a command line.
enum class Kind {
    nothing,    ///< A command without a result.
    boolean,    ///< 0 or 1
    integer,    ///< Also enumerations: their values have no names.
    number,     ///< A floating-point number.
    string,     ///< Any bytes but NUL.
    bytes,      ///< A fixed number of bytes.
    buffer,     ///< A list of values, of which only the first is sent.
    structure,  ///< Members with names.
};

struct NamedType;

/// One type. The kind decides which members apply.
struct ValueType {
    Kind kind = Kind::nothing;
    std::string name;  ///< In C++, such as "char[32]".

    std::int64_t lowest = 0;   ///< Of an integer, or of the integers in a buffer.
    std::int64_t highest = 0;  ///< Likewise.
    double largest = 0;        ///< Magnitude of a number, or of the numbers in a buffer.
    double smallest = 0;       ///< Magnitude of a number, or of those in a buffer, that is not 0.
    Kind element = Kind::nothing;    ///< Integer or number, in a buffer.
    std::size_t size = 0;            ///< Number of bytes.
    bool holds_string = false;       ///< Bytes of a string, padded with NULs.
    std::vector<NamedType> members;  ///< Of a structure, in their order.
};

/// A member of a structure, or an argument of a command.
struct NamedType {
    std::string key;
    ValueType type;
};

/// @return the type's name for people: its C++ name, but "text", "bytes" or "floats" for pointers.
std::string display_type(const ValueType& type);

/// @return the entry of that key, null when there is none.
const NamedType* find_key(const std::vector<NamedType>& entries, const std::string& key);

/// @return the keys as on a command line ("config.gains.kp"), each with its type; the members of a
///     structure follow it.
std::vector<std::pair<std::string, const ValueType*>> key_paths(
    const std::vector<NamedType>& entries, const std::string& prefix = {});

}  // namespace jovu_cli
