/// @file
/// The SD card.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "firmware/types.h"

namespace jovusim {

/// Bytes that stay until they are written anew, also over a reset of the machine. What was never
/// written reads as 0xFF.
class Storage {
public:
    static constexpr std::uint32_t kBlockSize = 512;
    static constexpr std::uint32_t kBlocks = 8192;
    static constexpr std::uint32_t kSize = kBlockSize * kBlocks;

    /// Returns false, and writes nothing, when not all of it is on the card.
    bool write(std::uint32_t offset, const std::string& bytes);

    /// Nothing when not all of it is on the card.
    std::optional<std::string> read(std::uint32_t offset, std::uint32_t length) const;

    /// Whether a piece of that length is on the card.
    static bool holds(std::uint32_t offset, std::uint32_t length) {
        return offset <= kSize && length <= kSize - offset;
    }

    Json stats() const;

private:
    using Block = std::array<char, kBlockSize>;

    std::map<std::uint32_t, Block> blocks_;  ///< those that were written, by number
    std::uint64_t writes_ = 0;
    std::uint64_t bytes_written_ = 0;
};

}  // namespace jovusim
