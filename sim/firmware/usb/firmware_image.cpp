// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/firmware_image.h"

#include <zlib.h>

#include <algorithm>
#include <random>
#include <stdexcept>

namespace jovusim {

namespace {

constexpr char kMagic[] = "JVFW";
constexpr std::size_t kMagicSize = 4;
constexpr std::size_t kLengthAt = kMagicSize;
constexpr std::size_t kSumAt = kLengthAt + 4;
constexpr std::size_t kVersionSizeAt = kSumAt + 4;
constexpr std::size_t kVersionAt = kVersionSizeAt + 1;

void append_long(std::string& out, std::uint32_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8)
        out += static_cast<char>((value >> shift) & 0xFFU);
}

std::uint32_t long_at(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;)
        value = value << 8U | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

std::uint32_t sum_of(const char* bytes, std::size_t size) {
    return static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(bytes), size));
}

}  // namespace

std::string make_firmware_image(const std::string& version, std::size_t size) {
    const bool printable =
        std::all_of(version.begin(), version.end(), [](char c) { return c >= ' ' && c <= '~'; });
    if (version.empty() || version.size() > kLongestVersion || !printable) {
        throw std::invalid_argument("\"" + version + "\" is not a valid version: use 1 to " +
                                    std::to_string(kLongestVersion) +
                                    " printable ASCII characters");
    }
    if (size < kVersionAt + version.size() || size > kLargestImage) {
        throw std::invalid_argument(std::to_string(size) + " is not a valid image size: use " +
                                    std::to_string(kVersionAt + version.size()) + " to " +
                                    std::to_string(kLargestImage) + " bytes");
    }
    std::string body(1, static_cast<char>(version.size()));
    body += version;
    std::minstd_rand random(static_cast<unsigned>(sum_of(version.data(), version.size()) | 1U));
    while (body.size() < size - kVersionSizeAt)
        body += static_cast<char>(random() / 256U);
    std::string image(kMagic, kMagicSize);
    append_long(image, static_cast<std::uint32_t>(size));
    append_long(image, sum_of(body.data(), body.size()));
    return image + body;
}

std::optional<std::size_t> announced_size(const std::string& image) {
    if (image.size() < kVersionAt || image.compare(0, kMagicSize, kMagic) != 0) {
        return std::nullopt;
    }
    return long_at(image, kLengthAt);
}

ImageError check_firmware_image(const std::string& image) {
    const auto size = announced_size(image);
    if (!size || *size > kLargestImage) return ImageError::foreign;
    const auto version_size = static_cast<unsigned char>(image[kVersionSizeAt]);
    if (version_size == 0 || version_size > kLongestVersion || *size < kVersionAt + version_size) {
        return ImageError::foreign;
    }
    if (image.size() < *size) return ImageError::incomplete;
    const std::uint32_t sum = sum_of(image.data() + kVersionSizeAt, *size - kVersionSizeAt);
    return sum == long_at(image, kSumAt) ? ImageError::none : ImageError::damaged;
}

std::string version_of_image(const std::string& image) {
    return image.substr(kVersionAt, static_cast<unsigned char>(image[kVersionSizeAt]));
}

}  // namespace jovusim
