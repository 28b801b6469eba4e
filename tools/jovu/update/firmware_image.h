/// @file
/// A firmware image and the checks that are possible before it is written to a device.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace jovu_cli {

/// The content of an image file. It is read once, so what is checked is what is written.
class FirmwareImage {
public:
    /// The end of a file that names the devices it is for, as the DFU standard defines it.
    struct Suffix {
        std::uint16_t vendor;   ///< any_id for every one
        std::uint16_t product;  ///< any_id for every one
        std::uint16_t release;  ///< Binary coded decimal; any_id when it is unknown.
    };
    static constexpr std::uint16_t kAnyId = 0xFFFF;

    /// The largest file that passes for an image, in bytes. No command and no descriptor of a
    /// controller reports the size of its memory. This is the size of the largest serial flash
    /// memory with addresses of three bytes.
    static constexpr std::uint64_t kMaxSize = std::uint64_t{16} << 20U;

    /// Reads a file, but no more of it than the largest image.
    /// @throws Failure file_problem when it cannot be read or is empty.
    explicit FirmwareImage(const std::string& path);

    const std::string& path() const noexcept { return path_; }
    /// Of the whole file, in bytes.
    std::uint64_t size() const noexcept { return size_; }
    /// Nothing when there is none, or a damaged one.
    const std::optional<Suffix>& suffix() const noexcept { return suffix_; }

    /// The release that the suffix names, as "2.50"; empty when it names none.
    std::string release() const;

    /// Why the file is no image for any device: it is too large, plain text, or its DFU suffix is
    /// damaged.
    /// @return empty when nothing is wrong with it.
    const std::string& fault() const noexcept { return fault_; }

    /// Whether the firmware in it may report that version: it holds the text somewhere. A packed or
    /// encrypted image holds no text. True for a file that was too large to be read.
    bool may_be_version(const std::string& version) const;

    /// Makes the image available under a name, without its suffix: a copy, or a link to a file that
    /// was too large to be read.
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
