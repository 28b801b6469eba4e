/// @file
/// The types of the firmware's values, described at run time: help, completion and the reading of
/// arguments go by this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace jovu_cli {

/// How a value is written by people.
enum class Kind {
    nothing,    ///< A command without a result.
    boolean,    ///< 0 or 1
    integer,    ///< Also the enumerations, whose values have no names.
    number,     ///< With a fraction.
    text,       ///< Any bytes but NUL.
    bytes,      ///< A fixed number of bytes.
    buffer,     ///< A list of values, of which only the first travels.
    structure,  ///< Members with names.
};

struct NamedType;

/// One type. Which members count depends on the kind.
struct ValueType {
    Kind kind = Kind::nothing;
    std::string name;  ///< As C++ programs write it, such as "char[32]".

    std::int64_t lowest = 0;   ///< Of an integer, or of the integers in a buffer.
    std::int64_t highest = 0;  ///< Likewise.
    double largest = 0;        ///< Magnitude of a number, or of the numbers in a buffer.
    double smallest = 0;       ///< Magnitude of a number, or of those in a buffer, that is not 0.
    Kind element = Kind::nothing;    ///< Integer or number, in a buffer.
    std::size_t size = 0;            ///< Number of bytes.
    bool holds_string = false;       ///< Bytes that are a text, padded with NULs.
    std::vector<NamedType> members;  ///< Of a structure, in their order.
};

/// A member of a structure, or an argument of a command.
struct NamedType {
    std::string key;
    ValueType type;
};

/// The type for people: its name, but "text" and "float, ..." in place of the pointers that C++
/// programs pass.
std::string display_type(const ValueType& type);

/// @return the entry of that key, null when there is none.
const NamedType* find_key(const std::vector<NamedType>& entries, const std::string& key);

/// The keys as they are written on a command line ("config.gains.kp"), each with its type:
/// structures, and behind each its members.
std::vector<std::pair<std::string, const ValueType*>> key_paths(
    const std::vector<NamedType>& entries, const std::string& prefix = {});

}  // namespace jovu_cli
