// SPDX-License-Identifier: Apache-2.0
#include "firmware/value_type.h"

#include <algorithm>

namespace jovu_cli {

std::string display_type(const ValueType& type) {
    switch (type.kind) {
        case Kind::string:
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
