/// @file
/// Images of the simulated firmware, as a firmware update carries them:
///
///     "JVFW"  length (4)  CRC-32 (4)  size of the version (1)  version  code
///
/// Numbers are little-endian. The length is the whole image's; the CRC-32 is that of all bytes
/// behind it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace jovusim {

constexpr std::size_t kLongestVersion = 64;
constexpr std::size_t kUsualImageSize = 32768;
constexpr std::size_t kLargestImage = std::size_t{16} << 20U;

/// Makes an image. The same version and size always make the same one.
/// @param version 1 to kLongestVersion printable ASCII characters
/// @param size    in bytes, up to kLargestImage
/// @throws std::invalid_argument
std::string make_firmware_image(const std::string& version, std::size_t size = kUsualImageSize);

/// What is wrong with an image.
enum class ImageError : std::uint8_t {
    none,
    foreign,     ///< not one of these at all
    incomplete,  ///< shorter than it says
    damaged,     ///< its CRC-32 is another
};

/// How long an image says that it is; nothing while too little of it is there, or when it is
/// foreign.
std::optional<std::size_t> announced_size(const std::string& image);

/// Checks an image. Bytes behind its announced length do not count.
ImageError check_firmware_image(const std::string& image);

/// The version in a sound image.
std::string version_of_image(const std::string& image);

}  // namespace jovusim
