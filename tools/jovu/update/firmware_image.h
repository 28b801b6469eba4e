// SPDX-License-Identifier: Apache-2.0

/// @file
/// A firmware image, and its checks before it is written to a device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace jovu_cli {

/// The content of an image file. It is read once, so the checked bytes are the written ones.
class FirmwareImage {
public:
    /// The end of a file that names its devices, as the DFU standard defines it.
    struct Suffix {
        std::uint16_t vendor;   ///< kAnyId for any.
        std::uint16_t product;  ///< kAnyId for any.
        std::uint16_t release;  ///< Binary coded decimal; kAnyId when it is unknown.
    };
    static constexpr std::uint16_t kAnyId = 0xFFFF;

    /// The largest file that is accepted as an image, in bytes. A controller does not report the
    /// size of its memory; this is the largest serial flash memory with three-byte addresses.
    static constexpr std::uint64_t kMaxSize = std::uint64_t{16} << 20U;

    /// Reads a file of at most kMaxSize.
    /// @throws Failure file_problem when it cannot be read or is empty.
    explicit FirmwareImage(const std::string& path);

    const std::string& path() const noexcept { return path_; }
    /// Of the whole file, in bytes.
    std::uint64_t size() const noexcept { return size_; }
    /// Nothing for a missing or damaged suffix.
    const std::optional<Suffix>& suffix() const noexcept { return suffix_; }

    /// @return the release in the suffix, as "2.50"; empty for none.
    std::string release() const;

    /// @return why the file is not an image for any device: it is too large, plain text, or its DFU
    ///     suffix is damaged; empty for none.
    const std::string& fault() const noexcept { return fault_; }

    /// Whether the firmware may report this version: the image contains the string. A packed or
    /// encrypted image does not. True for a file that is too large to be read.
    bool may_be_version(const std::string& version) const;

    /// Creates a copy of the image without its suffix, or a link to a file that is too large to be
    /// read.
    /// @throws Failure failure.
    void put_at(const std::filesystem::path& name) const;

private:
    std::string find_fault();

    std::string path_;
    std::uint64_t size_;
    std::string content_;  ///< Without the suffix. Empty when the file is too large.
    std::optional<Suffix> suffix_;
    std::string fault_;
};

}  // namespace jovu_cli
