// SPDX-License-Identifier: Apache-2.0
#include "update/firmware_image.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string_view>
#include <system_error>

#include "cli/failure.h"
#include "posix/files.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

namespace fs = std::filesystem;

/// The suffix of a DFU file, from its end: CRC, length, signature, version of the standard, vendor,
/// product, release. Numbers are little-endian.
constexpr std::size_t kSuffixSize = 16;
constexpr std::size_t kCrcSize = 4;
constexpr std::string_view kSignature = "UFD";

/// Bytes at the start of a file that decide whether it is plain text. Machine code begins with
/// control characters; erased memory before it is not UTF-8.
constexpr std::size_t kSampleSize = 4096;
constexpr int kMaxCharacterSize = 4;  // Bytes.

std::uint32_t number_at(const std::string& bytes, std::size_t at, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = size; i-- > 0;) {
        value = value << 8U | static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

/// CRC-32 without the final inversion, as in the suffix.
std::uint32_t crc_of(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1U ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
        }
    }
    return crc;
}

bool is_text(std::string_view bytes) {
    constexpr std::string_view kAllowed = "\t\n\v\f\r\b\x1b";
    return is_utf8(bytes) && std::all_of(bytes.begin(), bytes.end(), [&](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return (byte >= 0x20 && byte != 0x7F) || kAllowed.find(c) != std::string_view::npos;
           });
}

}  // namespace

FirmwareImage::FirmwareImage(const std::string& path)
    : path_(path), size_(check_input_file(path, "use")) {
    if (size_ <= kMaxSize) {
        std::ifstream file(path, std::ios::binary);
        content_.resize(static_cast<std::size_t>(size_));
        errno = 0;
        if (!file.read(content_.data(), static_cast<std::streamsize>(content_.size()))) {
            const std::string reason =
                errno != 0 ? std::generic_category().message(errno) : "it has become shorter";
            throw Failure(ExitCode::file_problem, "cannot use " + path + ": " + reason);
        }
    }
    fault_ = find_fault();
}

/// Also removes the suffix from the content.
std::string FirmwareImage::find_fault() {
    if (size_ > kMaxSize) {
        return "it has " + std::to_string(size_) +
               " bytes, no controller has memory for more than " + std::to_string(kMaxSize);
    }
    const std::size_t size = content_.size();
    if (size >= kSuffixSize && content_.compare(size - 8, kSignature.size(), kSignature) == 0) {
        const std::uint32_t length = number_at(content_, size - 5, 1);
        const std::uint32_t expected = number_at(content_, size - kCrcSize, kCrcSize);
        const std::uint32_t crc = crc_of(std::string_view(content_).substr(0, size - kCrcSize));
        if (expected != crc || length < kSuffixSize || length > size) {
            char numbers[64];
            std::snprintf(numbers, sizeof numbers, "CRC %08x, the file has %08x", expected, crc);
            return std::string("its DFU suffix is damaged: it has ") + numbers;
        }
        const auto id_at = [&](std::size_t from_end) {
            return static_cast<std::uint16_t>(number_at(content_, size - from_end, 2));
        };
        suffix_ = Suffix{id_at(12), id_at(14), id_at(16)};
        content_.resize(size - length);
        if (content_.empty()) {
            return "it contains only a DFU suffix";
        }
    }
    std::size_t sample = std::min(kSampleSize, content_.size());
    for (int i = 1; i < kMaxCharacterSize && is_continuation(content_[sample]); ++i) {
        --sample;  // Do not split a character. A NUL follows the last byte.
    }
    if (is_text(std::string_view(content_).substr(0, sample))) {
        return "it is plain text";
    }
    return {};
}

std::string FirmwareImage::release() const {
    if (!suffix_ || suffix_->release == kAnyId) {
        return {};
    }
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%x.%02x", suffix_->release >> 8U,
                  suffix_->release & 0xFFU);
    return buffer;
}

bool FirmwareImage::may_be_version(const std::string& version) const {
    return size_ > kMaxSize || content_.find(version) != std::string::npos;
}

void FirmwareImage::put_at(const fs::path& name) const {
    std::error_code error;
    fs::remove(name, error);
    if (size_ > kMaxSize) {
        fs::create_symlink(fs::absolute(path_), name, error);
    } else {
        errno = 0;
        std::ofstream file(name, std::ios::binary);
        file << content_;
        file.close();
        if (!file) {
            error = std::error_code(errno != 0 ? errno : EIO, std::generic_category());
        }
    }
    if (error) {
        throw Failure(ExitCode::failure,
                      "cannot copy " + path_ + " to " + name.string() + ": " + error.message());
    }
}

}  // namespace jovu_cli
