// SPDX-License-Identifier: Apache-2.0

/// @file
/// Images of the simulated firmware, as a firmware update carries them:
///
///     "JVFW"  length (4)  CRC-32 (4)  size of the version (1)  version  code
///
/// Numbers are little-endian. The length is that of the whole image; the CRC-32 is that of all
/// bytes after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace jovusim {

constexpr std::size_t kLongestVersion = 64;
constexpr std::size_t kUsualImageSize = 32768;
constexpr std::size_t kLargestImage = std::size_t{16} << 20U;

/// Makes an image. It depends on version and size only.
/// @param version 1 to kLongestVersion printable ASCII characters
/// @param size    in bytes, up to kLargestImage
/// @throws std::invalid_argument
std::string make_firmware_image(const std::string& version, std::size_t size = kUsualImageSize);

/// Errors of an image.
enum class ImageError : std::uint8_t {
    none,
    foreign,     ///< not an image of this format
    incomplete,  ///< shorter than its length field
    damaged,     ///< its CRC-32 is wrong
};

/// The length in the header of an image; nothing when the header is incomplete or foreign.
std::optional<std::size_t> announced_size(const std::string& image);

/// Checks an image. Bytes after its announced length are ignored.
ImageError check_firmware_image(const std::string& image);

/// The version in an intact image.
std::string version_of_image(const std::string& image);

}  // namespace jovusim
