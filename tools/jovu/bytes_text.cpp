#include "bytes_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace jovu_cli {
namespace {

constexpr std::size_t hardware_address_size = 6;

}  // namespace

std::string bytes_text(const unsigned char* bytes, std::size_t size) {
    const bool hexadecimal = size == hardware_address_size;
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        char part[8];
        std::snprintf(part, sizeof part, hexadecimal ? "%02x" : "%u", unsigned{bytes[i]});
        text += (i == 0 ? "" : hexadecimal ? ":" : ".") + std::string(part);
    }
    return text;
}

std::string padded_text(const unsigned char* bytes, std::size_t size) {
    return std::string(bytes, std::find(bytes, bytes + size, '\0'));
}

std::optional<std::vector<unsigned char>> parse_bytes(const std::string& text) {
    const std::size_t first_separator = text.find_first_of(".,:");
    const char separator = first_separator == std::string::npos ? ',' : text[first_separator];
    const int base = separator == ':' ? 16 : 10;
    std::vector<unsigned char> bytes;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        unsigned char byte = 0;
        const auto [stop, error] =
            std::from_chars(text.data() + begin, text.data() + end, byte, base);
        if (error != std::errc() || stop != text.data() + end) {
            return std::nullopt;
        }
        bytes.push_back(byte);
        begin = end + 1;
    }
    return bytes;
}

}  // namespace jovu_cli
