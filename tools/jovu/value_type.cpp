#include "value_type.h"

#include <algorithm>
#include <numeric>

#include "bytes_text.h"

namespace jovu_cli {
namespace {

std::string range_text(const ValueType& type) {
    return std::to_string(type.lowest) + " to " + std::to_string(type.highest);
}

/// How a fixed number of bytes may be written.
std::string bytes_example(std::size_t size) {
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return std::to_string(size) + " bytes, such as " + bytes_text(bytes.data(), size);
}

}  // namespace

std::string values_text(const ValueType& type) {
    switch (type.kind) {
        case Kind::nothing:
        case Kind::structure:
            return {};
        case Kind::boolean:
            return "0 or 1";
        case Kind::integer:
            return range_text(type);
        case Kind::number:
            return "a finite number";
        case Kind::text:
            return "any bytes but NUL";
        case Kind::bytes:
            return type.holds_text ? "text of at most " + std::to_string(type.size) + " bytes"
                                   : bytes_example(type.size);
        case Kind::buffer:
            return (type.element == Kind::integer ? range_text(type) : "numbers") +
                   std::string("; of a list only the first is sent");
    }
    return {};
}

std::string type_text(const ValueType& type) {
    switch (type.kind) {
        case Kind::text:
            return "text";
        case Kind::buffer:
            return type.element == Kind::integer ? "bytes" : "floats";
        default:
            return type.name;
    }
}

const NamedType* find_key(const std::vector<NamedType>& entries, const std::string& key) {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const NamedType& entry) { return entry.key == key; });
    return found == entries.end() ? nullptr : &*found;
}

std::vector<std::pair<std::string, const ValueType*>> key_paths(
    const std::vector<NamedType>& entries, const std::string& prefix) {
    std::vector<std::pair<std::string, const ValueType*>> paths;
    for (const NamedType& entry : entries) {
        const std::string path = prefix + entry.key;
        paths.emplace_back(path, &entry.type);
        const auto below = key_paths(entry.type.members, path + ".");
        paths.insert(paths.end(), below.begin(), below.end());
    }
    return paths;
}

}  // namespace jovu_cli
