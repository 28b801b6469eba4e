// SPDX-License-Identifier: Apache-2.0
#include "tool/request_reader.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace jovusim {

namespace {

constexpr char kBlanks[] = " \t\r";
constexpr int kMostErrnos = 256;
constexpr int kHex = 16;
constexpr std::size_t kLongestString = 126;  // a descriptor has 255 bytes, two for a character
constexpr int kDecimal = 10;

/// Parses the whole word; nothing when it is not a number.
std::optional<std::uint64_t> parse_number(const std::string& word, int base) {
    std::uint64_t value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value, base);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

}  // namespace

std::optional<std::string> RequestReader::next_if_any() {
    const std::size_t begin = line_.find_first_not_of(kBlanks, at_);
    if (begin == std::string::npos) return std::nullopt;
    at_ = std::min(line_.find_first_of(kBlanks, begin), line_.size());
    return line_.substr(begin, at_ - begin);
}

std::string RequestReader::next(const char* what) {
    auto word = next_if_any();
    if (!word) throw BadRequest(std::string(what) + " is missing");
    return *word;
}

std::string RequestReader::rest() {
    if (at_ < line_.size()) ++at_;
    std::string text = line_.substr(at_);
    at_ = line_.size();
    return text;
}

void RequestReader::expect_end() {
    if (const auto word = next_if_any()) throw BadRequest("unexpected \"" + *word + "\"");
}

std::uint64_t RequestReader::number(const char* what, std::uint64_t least, std::uint64_t most) {
    const std::string word = next(what);
    const auto value = parse_number(word, kDecimal);
    if (!value || *value < least || *value > most) {
        throw BadRequest(std::string(what) + " \"" + word + "\" is not a number from " +
                         std::to_string(least) + " to " + std::to_string(most));
    }
    return *value;
}

std::uint32_t RequestReader::count(std::uint32_t fallback) {
    const std::size_t before = at_;
    const auto word = next_if_any();
    if (!word) return fallback;
    if (*word == "always") return kAlways;
    at_ = before;
    return static_cast<std::uint32_t>(number("COUNT", 1, kAlways - 1));
}

std::uint32_t RequestReader::optional_number(const char* what, std::uint32_t fallback) {
    const std::size_t before = at_;
    if (!next_if_any()) return fallback;
    at_ = before;
    return static_cast<std::uint32_t>(number(what, 0, std::numeric_limits<std::uint32_t>::max()));
}

int RequestReader::error_name() {
    const std::string word = next("ERRNO");
    for (int error = 1; error < kMostErrnos; ++error) {
        const char* const name = ::strerrorname_np(error);
        if (name != nullptr && word == name) return error;
    }
    throw BadRequest("ERRNO \"" + word + "\" is not the name of an errno, such as EPIPE");
}

std::uint8_t RequestReader::endpoint() {
    const std::string word = next("EP");
    const auto value = parse_number(word, kHex);
    if (!value || *value > std::numeric_limits<std::uint8_t>::max()) {
        throw BadRequest("EP \"" + word + "\" is not a valid endpoint address, such as 81 or 02");
    }
    return static_cast<std::uint8_t>(*value);
}

Channel RequestReader::channel() {
    const std::string word = next("message|job");
    if (word == "message") return Channel::message;
    if (word == "job") return Channel::job;
    throw BadRequest("\"" + word + "\" is not a channel: use message or job");
}

std::uint16_t parse_hex_word(const std::string& word) {
    const auto value = parse_number(word, kHex);
    if (!value || *value > std::numeric_limits<std::uint16_t>::max()) {
        throw BadRequest("\"" + word + "\" is not a hexadecimal number from 0 to ffff");
    }
    return static_cast<std::uint16_t>(*value);
}

std::string parse_string(const std::string& word) {
    std::string text;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] == '%') {
            const std::string digits = word.substr(i + 1, 2);
            text += parse_hex_bytes(digits.empty() ? "%" : digits);
            i += 2;
        } else {
            text += word[i];
        }
    }
    if (text.empty() || text.size() > kLongestString) {
        throw BadRequest("\"" + word + "\" must have 1 to " + std::to_string(kLongestString) +
                         " characters");
    }
    return text;
}

std::string parse_serial(const std::string& word) {
    std::string serial = parse_string(word);
    if (std::any_of(serial.begin(), serial.end(), [](char c) { return c < ' ' || c > '~'; })) {
        throw BadRequest("the serial number \"" + word + "\" is not printable ASCII");
    }
    return serial;
}

std::string parse_hex_bytes(const std::string& word) {
    std::string bytes;
    for (std::size_t i = 0; i < word.size(); i += 2) {
        const auto value = parse_number(word.substr(i, 2), kHex);
        if (!value || i + 1 == word.size()) {
            throw BadRequest("\"" + word.substr(i, 2) + "\" is not a pair of hexadecimal digits");
        }
        bytes += static_cast<char>(*value);
    }
    return bytes;
}

}  // namespace jovusim
