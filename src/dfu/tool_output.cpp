// SPDX-License-Identifier: Apache-2.0
#include "dfu/tool_output.h"

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>

#include "dfu/characters.h"

namespace jovu {
namespace {

constexpr std::string_view kFound = "Found";
constexpr std::string_view kSerial = "serial=\"";

/// Matches one thing after another, each as long as possible. No pattern here needs to go back:
/// what follows a run never begins with a character of the run.
class Cursor {
public:
    Cursor(std::string_view text, std::size_t at) : text_(text), at_(at) {}

    std::size_t at() const noexcept { return at_; }

    bool literal(std::string_view word) {
        if (text_.substr(at_, word.size()) != word) return false;
        at_ += word.size();
        return true;
    }

    /// @return characters of a class, empty when there is none.
    std::string_view run(bool (*in_class)(char)) {
        const std::size_t begin = at_;
        while (at_ < text_.size() && in_class(text_[at_]))
            ++at_;
        return text_.substr(begin, at_ - begin);
    }
    bool run(bool (*in_class)(char), std::string_view& taken) {
        taken = run(in_class);
        return !taken.empty();
    }

private:
    std::string_view text_;
    std::size_t at_;
};

/// What a line begins with. The whitespace in it may go over ends of lines.
struct Header {
    std::string_view vendor_id;
    std::string_view product_id;
    std::size_t end = 0;
};

std::optional<Header> match_header(std::string_view output, std::size_t at) {
    Cursor cursor(output, at);
    Header header;
    std::string_view space;
    if (cursor.literal(kFound) && cursor.run(is_space, space) && cursor.literal("DFU:") &&
        cursor.run(is_space, space) && cursor.literal("[") &&
        cursor.run(is_alphanumeric, header.vendor_id) && cursor.literal(":") &&
        cursor.run(is_alphanumeric, header.product_id) && cursor.literal("]")) {
        header.end = cursor.at();
        return header;
    }
    return std::nullopt;
}

/// @return the first serial number of letters and digits, empty when there is none.
std::string_view find_serial(std::string_view line) {
    for (std::size_t at = line.find(kSerial); at != std::string_view::npos;
         at = line.find(kSerial, at)) {
        at += kSerial.size();
        Cursor cursor(line, at);
        std::string_view serial;
        if (cursor.run(is_alphanumeric, serial) && cursor.literal("\"")) return serial;
    }
    return {};
}

}  // namespace

std::list<JovuDfu::DfuDevice_t> listed_devices(std::string_view output) {
    std::list<JovuDfu::DfuDevice_t> devices;
    // No header that ends up to here is followed by a serial number and a line feed. Looking once
    // for all headers of a line keeps the time linear.
    std::size_t barren_to = 0;
    std::size_t at = 0;
    while ((at = output.find(kFound, at)) != std::string_view::npos) {
        const auto header = match_header(output, at);
        if (!header) {
            at += kFound.size();
            continue;
        }
        at = header->end;
        if (at <= barren_to) continue;
        const std::size_t end = output.find_first_of("\r\n", at);
        if (end == std::string_view::npos) break;
        // A dot in a pattern matches neither of the two, so the line must end here with the right
        // one.
        std::string_view serial;
        if (output[end] == '\n') serial = find_serial(output.substr(at, end - at));
        if (serial.empty()) {
            barren_to = end;
            continue;
        }
        devices.push_back(
            {std::string(header->vendor_id), std::string(header->product_id), std::string(serial)});
        at = end;
    }
    return devices;
}

std::vector<double> percentages(std::string_view piece) {
    std::vector<double> found;
    for (std::size_t at = 0; at < piece.size();) {
        if (!is_space(piece[at++])) continue;
        Cursor cursor(piece, at);
        std::string_view digits;
        if (!cursor.run(is_digit, digits) || !cursor.literal("%")) continue;
        if (cursor.at() == piece.size() || !is_space(piece[cursor.at()])) continue;
        double value = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), value);
        found.push_back(value);
        at = cursor.at() + 1;
    }
    return found;
}

}  // namespace jovu
