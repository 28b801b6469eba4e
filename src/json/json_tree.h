// SPDX-License-Identifier: Apache-2.0

/// @file
/// Parses JSON into a tree of yajl's nodes.
#pragma once

#include <yajl/yajl_tree.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace jovu {

class JsonDocument;

/// How deep received JSON may nest. The deepest document of the protocol has eight levels. Code
/// that walks a tree may recurse.
inline constexpr std::size_t kMaxJsonDepth = 64;

/// How much memory for nodes is kept from one document for the next, in bytes. That of a larger
/// document is freed with its tree.
inline constexpr std::size_t kKeptJsonBytes = std::size_t{32} << 10U;

/// The memory of a receiver's trees, kept from one to the next. Not locked: its trees are made and
/// destroyed by one thread at a time.
class JsonMemory {
public:
    JsonMemory() noexcept;
    ~JsonMemory();
    JsonMemory(const JsonMemory&) = delete;
    JsonMemory& operator=(const JsonMemory&) = delete;

private:
    friend class JsonTree;
    std::unique_ptr<JsonDocument> spare_;  ///< Null before the first tree, and while one lives.
};

/// A parsed document; every node in it dies with it. The nodes are those that yajl_tree_parse()
/// makes, but not to be freed by yajl.
class JsonTree {
public:
    /// Parses one document, up to the first NUL. get() returns null when the text is not JSON,
    /// nests deeper than kMaxJsonDepth or has a comment.
    /// @throws std::bad_alloc
    explicit JsonTree(std::string_view text);

    /// The same in memory that outlives the tree. While another tree uses it, as in a handler that
    /// is called with that one, this tree has memory of its own.
    JsonTree(std::string_view text, JsonMemory& memory);

    ~JsonTree();
    JsonTree(const JsonTree&) = delete;
    JsonTree& operator=(const JsonTree&) = delete;

    /// The root; belongs to the tree.
    yajl_val get() const noexcept { return root_; }

private:
    JsonMemory* const memory_;  ///< Null for a tree with memory of its own.
    std::unique_ptr<JsonDocument> document_;
    yajl_val root_ = nullptr;
};

}  // namespace jovu
