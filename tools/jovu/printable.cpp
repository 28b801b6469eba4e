#include "printable.h"

#include <cstdint>
#include <cstdio>

namespace jovu_cli {
namespace {

/// One character taken off the front of a text.
struct Decoded {
    std::uint32_t code = 0;
    std::size_t length = 0;  ///< In bytes; 0 when the front is not well-formed UTF-8.
};

Decoded decode_front(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    std::size_t length = 0;
    std::uint32_t code = 0;
    std::uint32_t smallest = 0;  // A longer form than needed is not UTF-8.
    if ((first & 0xE0U) == 0xC0) {
        length = 2, code = first & 0x1FU, smallest = 0x80;
    } else if ((first & 0xF0U) == 0xE0) {
        length = 3, code = first & 0x0FU, smallest = 0x800;
    } else if ((first & 0xF8U) == 0xF0) {
        length = 4, code = first & 0x07U, smallest = 0x10000;
    }
    if (length == 0 || length > text.size()) {
        return {};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
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

bool is_control(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code <= 0x9F);
}

/// Line and paragraph separators, and the marks that turn or embed the writing direction, with
/// which a text could pose as another one.
bool is_layout_mark(std::uint32_t code) {
    return code == 0x061C || code == 0x200E || code == 0x200F ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

void append_escape(std::string& out, std::uint32_t code) {
    switch (code) {
        case '\t':
            out += "\\t";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        default:
            break;
    }
    char escape[12];
    std::snprintf(escape, sizeof escape, code <= 0xFF ? "\\x%02x" : "\\u%04x",
                  static_cast<unsigned>(code));
    out += escape;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Decoded front = decode_front(text);
        if (front.length == 0) {
            append_escape(out, static_cast<std::uint8_t>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (is_control(front.code) || is_layout_mark(front.code)) {
            append_escape(out, front.code);
        } else {
            out += text.substr(0, front.length);
        }
        text.remove_prefix(front.length);
    }
    return out;
}

std::size_t character_count(std::string_view text) {
    std::size_t count = 0;
    for (const char c : text) {
        count += (static_cast<std::uint8_t>(c) & 0xC0U) != 0x80 ? 1U : 0U;
    }
    return count;
}

std::string fit(std::string_view text, std::size_t columns) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<std::uint8_t>(text[i]) & 0xC0U) != 0x80 && count++ == columns) {
            return std::string(text.substr(0, i));
        }
    }
    return std::string(text);
}

}  // namespace jovu_cli
