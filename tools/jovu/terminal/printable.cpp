// SPDX-License-Identifier: Apache-2.0
#include "terminal/printable.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace jovu_cli {
namespace {

/// The first character of a string.
struct Decoded {
    char32_t code = 0;
    std::size_t length = 0;  ///< In bytes; 0 when the front is not well-formed UTF-8.
};

Decoded decode_front(std::string_view value) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(value[i]); };
    const std::uint8_t first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    std::size_t length = 0;
    char32_t code = 0;
    char32_t smallest = 0;  // An overlong form is not UTF-8.
    if ((first & 0xE0U) == 0xC0) {
        length = 2, code = first & 0x1FU, smallest = 0x80;
    } else if ((first & 0xF0U) == 0xE0) {
        length = 3, code = first & 0x0FU, smallest = 0x800;
    } else if ((first & 0xF8U) == 0xF0) {
        length = 4, code = first & 0x07U, smallest = 0x10000;
    }
    if (length == 0 || length > value.size()) {
        return {};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!is_continuation(value[i])) {
            return {};
        }
        code = (code << 6U) | (byte(i) & 0x3FU);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < smallest || code > 0x10FFFF || surrogate) {
        return {};
    }
    return {code, length};
}

/// Characters that have an effect, are invisible, or look like a blank: controls, format characters
/// (such as marks of the writing direction), separators, fillers, variation selectors, private and
/// unassigned characters. In ascending order, below kUnassignedPlanes.
struct CodeRange {
    char32_t first;
    char32_t last;
};
constexpr CodeRange kHiddenRanges[] = {
    {0x0000, 0x001F},   {0x007F, 0x00A0},   {0x00AD, 0x00AD},   {0x034F, 0x034F},
    {0x0600, 0x0605},   {0x061C, 0x061C},   {0x06DD, 0x06DD},   {0x070F, 0x070F},
    {0x0890, 0x0891},   {0x08E2, 0x08E2},   {0x115F, 0x1160},   {0x1680, 0x1680},
    {0x17B4, 0x17B5},   {0x180B, 0x180F},   {0x2000, 0x200F},   {0x2028, 0x202F},
    {0x205F, 0x206F},   {0x2800, 0x2800},   {0x3000, 0x3000},   {0x3164, 0x3164},
    {0xD800, 0xF8FF},   {0xFDD0, 0xFDEF},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},
    {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB},   {0xFFFE, 0xFFFF},   {0x110BD, 0x110BD},
    {0x110CD, 0x110CD}, {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D159, 0x1D159},
    {0x1D173, 0x1D17A}, {0x1FFFE, 0x1FFFF}, {0x2FFFE, 0x2FFFF}, {0x3FFFE, 0x3FFFF},
};
/// From here on only tags, variation selectors and private characters are assigned.
constexpr char32_t kUnassignedPlanes = 0x40000;

/// @return the escape of a character, or of a byte that is not part of one.
std::string escape(char32_t code, bool is_byte) {
    switch (code) {
        case '\t':
            return "\\t";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        default:
            break;
    }
    const char* const format = is_byte || code < 0x80 ? "\\x%02x"
                               : code > 0xFFFF        ? "\\U%08x"
                                                      : "\\u%04x";
    char buffer[12];
    std::snprintf(buffer, sizeof buffer, format, static_cast<unsigned>(code));
    return buffer;
}

}  // namespace

bool is_shown(char32_t code) {
    const auto* const range =
        std::lower_bound(std::begin(kHiddenRanges), std::end(kHiddenRanges), code,
                         [](const CodeRange& hidden, char32_t c) { return hidden.last < c; });
    return code < kUnassignedPlanes && (range == std::end(kHiddenRanges) || code < range->first);
}

std::string printable(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    while (!value.empty()) {
        const Decoded front = decode_front(value);
        const std::size_t length = std::max<std::size_t>(front.length, 1);
        if (front.length == 0) {
            out += escape(static_cast<std::uint8_t>(value.front()), true);
        } else if (is_shown(front.code)) {
            out += value.substr(0, length);
        } else {
            out += escape(front.code, false);
        }
        value.remove_prefix(length);
    }
    return out;
}

bool is_utf8(std::string_view value) {
    while (!value.empty()) {
        const std::size_t length = decode_front(value).length;
        if (length == 0) {
            return false;
        }
        value.remove_prefix(length);
    }
    return true;
}

bool is_continuation(char byte) {
    return (static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80;
}

std::size_t character_count(std::string_view value) {
    std::size_t count = 0;
    for (const char c : value) {
        count += is_continuation(c) ? 0U : 1U;
    }
    return count;
}

std::string fit(std::string_view value, std::size_t columns) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (!is_continuation(value[i]) && count++ == columns) {
            return std::string(value.substr(0, i));
        }
    }
    return std::string(value);
}

}  // namespace jovu_cli
