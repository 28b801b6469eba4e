// SPDX-License-Identifier: Apache-2.0

/// @file
/// Memory that is taken piece by piece and freed as a whole, for yajl and its trees.
#pragma once

#include <yajl/yajl_common.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace jovu {

/// Takes memory from a first block and, once that is used up, from larger ones of its own.
class Arena {
public:
    /// @param first stays the caller's and outlives the arena; aligned as std::max_align_t.
    Arena(unsigned char* first, std::size_t size) noexcept
        : first_(first), first_size_(size), at_(first), left_(size) {}
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    /// @return @p size bytes, aligned as std::max_align_t; null when there is no memory.
    void* take(std::size_t size) noexcept {
        size = (size + kAlignment - 1) / kAlignment * kAlignment;
        if (size > left_ && !grow(size)) return nullptr;
        left_ -= size;
        return std::exchange(at_, at_ + size);
    }

    /// Frees all but the first block and a spare one, of at most kMaxSpare bytes. Blocks that go
    /// back to the heap for each document would go back to the system as well, and cost a page
    /// fault for each 4 KiB.
    void clear() noexcept {
        if (!more_.empty() && block_size_ <= kMaxSpare) {
            spare_ = std::move(more_.back());
            spare_size_ = block_size_;
        }
        more_.clear();
        at_ = first_;
        left_ = block_size_ = first_size_;
    }

    /// Has yajl allocate here. It does not check for null, so the caller makes the first block
    /// large enough.
    yajl_alloc_funcs yajl_functions() noexcept {
        return {allocate, reallocate, [](void* /*self*/, void* /*block*/) {}, this};
    }

private:
    using Block = std::unique_ptr<unsigned char[]>;

    static constexpr std::size_t kAlignment = alignof(std::max_align_t);
    /// Enough for the tree of a document of 64 KiB.
    static constexpr std::size_t kMaxSpare = std::size_t{1} << 20U;

    bool grow(std::size_t size) noexcept {
        try {
            if (spare_ && size <= spare_size_) {
                more_.push_back(std::move(spare_));
                block_size_ = spare_size_;
            } else {
                block_size_ = std::max(size, 2 * block_size_);
                // Not by make_unique(), which would touch every page of it.
                more_.push_back(Block(new unsigned char[block_size_]));
            }
        } catch (const std::bad_alloc&) {
            return false;
        }
        at_ = more_.back().get();
        left_ = block_size_;
        return true;
    }

    /// A block for yajl has its size in front.
    static void* allocate(void* self, std::size_t size) noexcept {
        auto* const block =
            static_cast<unsigned char*>(static_cast<Arena*>(self)->take(kAlignment + size));
        if (block == nullptr) return nullptr;
        std::memcpy(block, &size, sizeof size);
        return block + kAlignment;
    }

    static void* reallocate(void* self, void* old, std::size_t size) noexcept {
        std::size_t old_size = 0;
        if (old != nullptr)
            std::memcpy(&old_size, static_cast<unsigned char*>(old) - kAlignment, sizeof old_size);
        if (size <= old_size) return old;
        void* const block = allocate(self, size);
        if (block != nullptr && old != nullptr) std::memcpy(block, old, old_size);
        return block;
    }

    unsigned char* const first_;
    const std::size_t first_size_;
    unsigned char* at_;
    std::size_t left_;
    std::size_t block_size_ = first_size_;  ///< Of the last block.
    std::vector<Block> more_;
    Block spare_;                 ///< For the next block that is needed; may be null.
    std::size_t spare_size_ = 0;  ///< Of the spare block.
};

}  // namespace jovu
