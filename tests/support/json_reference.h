// SPDX-License-Identifier: Apache-2.0

/// @file
/// What yajl alone makes of a text, for comparison with jovu::JsonTree.
#pragma once

#include <yajl/yajl_tree.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "json/json_tree.h"

namespace test {

/// @return whether brackets outside of strings nest at most @p limit deep, and nothing but a string
///     has a slash, with which comments begin.
inline bool nests_within(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            in_string = !in_string;
        } else if (in_string) {
            if (c == '\\') ++i;
        } else if (c == '/') {
            return false;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) return false;
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

/// @return whether two nodes and all below them are equal in every member.
inline bool same(yajl_val a, yajl_val b) {
    if (a == nullptr || b == nullptr || a->type != b->type) return a == b;
    if (YAJL_IS_STRING(a)) return std::strcmp(a->u.string, b->u.string) == 0;
    if (YAJL_IS_NUMBER(a)) {
        const auto& x = a->u.number;
        const auto& y = b->u.number;
        return x.i == y.i && std::memcmp(&x.d, &y.d, sizeof x.d) == 0 && x.flags == y.flags &&
               std::strcmp(x.r, y.r) == 0;
    }
    if (YAJL_IS_ARRAY(a)) {
        bool equal = a->u.array.len == b->u.array.len;
        for (std::size_t i = 0; equal && i < a->u.array.len; ++i)
            equal = same(a->u.array.values[i], b->u.array.values[i]);
        return equal;
    }
    if (!YAJL_IS_OBJECT(a)) return true;
    bool equal = a->u.object.len == b->u.object.len;
    for (std::size_t i = 0; equal && i < a->u.object.len; ++i) {
        equal = std::strcmp(a->u.object.keys[i], b->u.object.keys[i]) == 0 &&
                same(a->u.object.values[i], b->u.object.values[i]);
    }
    return equal;
}

/// @return whether a text is taken exactly when yajl takes it, apart from deeper ones and those
/// with
///     comments, and the trees are the same.
/// @param memory used by the tree.
inline bool parsed_as_by_yajl(const std::string& text, jovu::JsonMemory& memory) {
    struct Free {
        void operator()(yajl_val tree) const { yajl_tree_free(tree); }
    };
    std::unique_ptr<yajl_val_s, Free> expected;
    if (nests_within(text.c_str(), jovu::kMaxJsonDepth))
        expected.reset(yajl_tree_parse(text.c_str(), nullptr, 0));
    return same(jovu::JsonTree(text, memory).get(), expected.get());
}

}  // namespace test
