#include "firmware/storage.h"

namespace jovusim {

namespace {
constexpr char kErased = '\xFF';
}

bool Storage::write(std::uint32_t offset, const std::string& bytes) {
    if (!holds(offset, static_cast<std::uint32_t>(bytes.size()))) return false;
    for (const char byte : bytes) {
        const auto [found, is_new] = blocks_.try_emplace(offset / kBlockSize);
        if (is_new) found->second.fill(kErased);
        found->second[offset % kBlockSize] = byte;
        ++offset;
    }
    ++writes_;
    bytes_written_ += bytes.size();
    return true;
}

std::optional<std::string> Storage::read(std::uint32_t offset, std::uint32_t length) const {
    if (!holds(offset, length)) return std::nullopt;
    std::string bytes;
    bytes.reserve(length);
    for (; length > 0; --length, ++offset) {
        const auto found = blocks_.find(offset / kBlockSize);
        bytes += found == blocks_.end() ? kErased : found->second[offset % kBlockSize];
    }
    return bytes;
}

Json Storage::stats() const {
    return {{"writes", writes_}, {"bytes_written", bytes_written_}, {"blocks", blocks_.size()}};
}

}  // namespace jovusim
