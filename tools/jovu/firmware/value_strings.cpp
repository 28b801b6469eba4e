// SPDX-License-Identifier: Apache-2.0
#include "firmware/value_strings.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/suggestions.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

std::string range_string(const ValueType& type) {
    return std::to_string(type.lowest) + " to " + std::to_string(type.highest);
}

/// @return how a fixed number of bytes is written.
std::string bytes_example(std::size_t size) {
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return std::to_string(size) + " bytes, such as " + bytes_string(bytes.data(), size);
}

[[noreturn]] void refuse(const ValueType& type, const std::string& why) {
    const std::string allowed = allowed_values(type);
    throw BadValue(why + (allowed.empty() ? "" : " (" + display_type(type) + ": " + allowed + ")"));
}

/// @return the digits without a plus sign, which std::from_chars does not accept.
std::string_view without_plus(const std::string& input) {
    std::string_view digits = input;
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-') {
        digits.remove_prefix(1);
    }
    return digits;
}

Json read_boolean(const ValueType& type, const std::string& input) {
    if (input == "1" || input == "true" || input == "on") {
        return true;
    }
    if (input == "0" || input == "false" || input == "off") {
        return false;
    }
    refuse(type, "is neither 0 nor 1");
}

Json read_integer(const ValueType& type, const std::string& input) {
    std::string_view digits = without_plus(input);
    const bool hexadecimal = digits.size() > 2 && digits.substr(0, 2) == "0x";
    if (hexadecimal) {
        digits.remove_prefix(2);
    }
    std::int64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, hexadecimal ? 16 : 10);
    if (stop != end || error == std::errc::invalid_argument ||
        (hexadecimal && digits.front() == '-')) {
        refuse(type, "is not a whole number");
    }
    if (error != std::errc() || value < type.lowest || value > type.highest) {
        refuse(type, "is out of range");
    }
    return value;
}

/// Half a unit in the last place of the largest float, relative to it.
constexpr double kRounding = 0x1p-25;

Json read_number(const ValueType& type, const std::string& input) {
    const std::string_view digits = without_plus(input);
    double value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (stop != end || error == std::errc::invalid_argument || std::isnan(value)) {
        refuse(type, "is not a number");
    }
    const double magnitude = std::abs(value);
    // The usual decimal forms of the largest float are rounded up.
    if (magnitude > type.largest && magnitude * (1 - kRounding) <= type.largest) {
        return std::copysign(type.largest, value);
    }
    if (error != std::errc() || magnitude > type.largest ||
        (magnitude > 0 && magnitude < type.smallest)) {
        refuse(type, "is out of range");
    }
    return value;
}

Json read_string(const ValueType& type, const std::string& input) {
    if (input.find('\0') != std::string::npos) {
        refuse(type, "holds a NUL byte");
    }
    return input;
}

Json pad_string(const ValueType& type, const std::string& input) {
    read_string(type, input);
    if (input.size() > type.size) {
        refuse(type, "is too long, " + std::to_string(input.size()) + " bytes");
    }
    Json bytes = Json::array();
    for (const char c : input) {
        bytes.push_back(static_cast<unsigned char>(c));
    }
    return bytes;
}

Json read_bytes(const ValueType& type, const std::string& input) {
    if (type.holds_string) {
        return pad_string(type, input);
    }
    const auto bytes = parse_bytes(input);
    if (!bytes || bytes->size() != type.size) {
        refuse(type, "is not " + std::to_string(type.size) + " bytes");
    }
    return *bytes;
}

ValueType element_type(const ValueType& buffer) {
    ValueType element = buffer;
    element.kind = buffer.element;
    return element;
}

Json read_scalar(const ValueType& type, const std::string& input) {
    return type.kind == Kind::number ? read_number(type, input) : read_integer(type, input);
}

Json read_buffer(const ValueType& type, const std::string& input) {
    const ValueType element = element_type(type);
    Json list = Json::array();
    for (std::size_t begin = 0; begin <= input.size();) {
        const std::size_t end = std::min(input.find(',', begin), input.size());
        list.push_back(read_scalar(element, input.substr(begin, end - begin)));
        begin = end + 1;
    }
    return list;
}

/// Refuses objects that hold a member twice, and nesting that is too deep; the parser accepts both.
class ParseGuard {
public:
    explicit ParseGuard(int max_depth) : max_depth_(max_depth) {}

    bool operator()(int depth, Json::parse_event_t event, const Json& parsed) {
        // The depth is that of the enclosing value.
        if (depth >= max_depth_ && (event == Json::parse_event_t::object_start ||
                                    event == Json::parse_event_t::array_start)) {
            throw BadValue("is nested deeper than " + std::to_string(max_depth_) + " levels");
        }
        if (event == Json::parse_event_t::object_start) {
            open_.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            open_.pop_back();
        } else if (event == Json::parse_event_t::key) {
            const auto& key = parsed.get_ref<const std::string&>();
            if (!open_.back().insert(key).second) {
                throw BadValue("holds a member twice", "", ": " + key);
            }
        }
        return true;
    }

private:
    const int max_depth_;
    std::vector<std::set<std::string>> open_;
};

Json checked_members(const ValueType& type, const Json& json) {
    if (!json.is_object()) {
        throw BadValue("is not a JSON object");
    }
    Json object = Json::object();
    for (const auto& [key, value] : json.items()) {
        const NamedType* const member = find_key(type.members, key);
        if (member == nullptr) {
            throw BadValue("holds an unknown member of " + type.name, "", ": " + key);
        }
        try {
            object[key] = check_value(member->type, value);
        } catch (const BadValue& bad) {
            throw BadValue(bad.what(), key + (bad.where().empty() ? "" : "." + bad.where()),
                           bad.quoted());
        }
    }
    return object;
}

/// Checks an array in JSON element by element.
Json checked_elements(const ValueType& type, const Json& json) {
    ValueType element = element_type(type);
    if (type.kind == Kind::bytes) {
        element.kind = Kind::integer;
        // Bytes of a string may be signed or unsigned.
        element.lowest = type.holds_string ? -128 : 0;
        element.highest = 255;
    }
    Json list = Json::array();
    for (const Json& entry : json) {
        if (!entry.is_number()) {
            refuse(type, "holds an element that is not a number");
        }
        list.push_back(read_scalar(element, entry.dump()));
    }
    if (type.kind == Kind::bytes) {
        if (type.holds_string ? list.size() > type.size : list.size() != type.size) {
            refuse(type, "has " + std::to_string(list.size()) + " elements");
        }
        for (Json& byte : list) {
            byte = static_cast<unsigned char>(byte.get<int>());
        }
    } else if (list.empty()) {
        refuse(type, "has no elements");
    }
    return list;
}

constexpr std::size_t kHardwareAddressSize = 6;

std::string scalar_string(const Json& value) {
    if (value.is_string()) {
        return printable(value.get_ref<const std::string&>());
    }
    if (value.is_null()) {
        return "-";
    }
    return value.dump();
}

using Row = std::pair<std::string, std::string>;

void flatten(const Json& value, const std::string& path, std::vector<Row>& rows) {
    if (!value.is_object()) {
        rows.emplace_back(path, scalar_string(value));
        return;
    }
    for (const auto& [key, member] : value.items()) {
        flatten(member, path.empty() ? key : std::string(path).append(".").append(key), rows);
    }
}

}  // namespace

Json parse_strict_json(const std::string& input, int max_depth) {
    ParseGuard guard(max_depth);
    try {
        return Json::parse(input, [&guard](int depth, Json::parse_event_t event, Json& parsed) {
            return guard(depth, event, parsed);
        });
    } catch (const Json::exception& error) {
        // "[json.exception.parse_error.101] parse error at ...": remove the name.
        const std::string what = error.what();
        const std::size_t begin = std::min(what.find("] ") + 2, what.size());
        // "...; last read: 'TEXT'", and for a number that is too large "... parsing 'TEXT'".
        const std::size_t quote = std::min(
            {what.find("; last read", begin), what.find(" parsing '", begin), what.size()});
        throw BadValue("is not JSON: " + what.substr(begin, quote - begin), "", what.substr(quote));
    }
}

Json check_value(const ValueType& type, const Json& json) {
    switch (type.kind) {
        case Kind::structure:
            return checked_members(type, json);
        case Kind::boolean:
            if (json.is_boolean() || json.is_number()) {
                return read_boolean(type, json.dump());
            }
            break;
        case Kind::integer:
        case Kind::number:
            if (json.is_number()) {
                return read_scalar(type, json.dump());
            }
            break;
        case Kind::bytes:
        case Kind::buffer:
            if (json.is_array()) {
                return checked_elements(type, json);
            }
            [[fallthrough]];
        case Kind::string:
            if (json.is_string()) {
                return read_value(type, json.get<std::string>());
            }
            break;
        case Kind::nothing:
            break;
    }
    refuse(type, "is of another type");
}

std::string allowed_values(const ValueType& type) {
    switch (type.kind) {
        case Kind::nothing:
        case Kind::structure:
            return {};
        case Kind::boolean:
            return "0 or 1";
        case Kind::integer:
            return range_string(type);
        case Kind::number:
            return "a finite number";
        case Kind::string:
            return "any bytes but NUL";
        case Kind::bytes:
            return type.holds_string ? "text of at most " + std::to_string(type.size) + " bytes"
                                     : bytes_example(type.size);
        case Kind::buffer:
            return (type.element == Kind::integer ? range_string(type) : "numbers") +
                   std::string("; of a list only the first is sent");
    }
    return {};
}

Json read_value(const ValueType& type, const std::string& input) {
    switch (type.kind) {
        case Kind::boolean:
            return read_boolean(type, input);
        case Kind::integer:
        case Kind::number:
            return read_scalar(type, input);
        case Kind::string:
            return read_string(type, input);
        case Kind::bytes:
            return read_bytes(type, input);
        case Kind::buffer:
            return read_buffer(type, input);
        case Kind::structure:
            return checked_members(type, parse_strict_json(input));
        case Kind::nothing:
            break;
    }
    throw BadValue("is not expected");
}

std::string bytes_string(const unsigned char* bytes, std::size_t size) {
    const bool hexadecimal = size == kHardwareAddressSize;
    std::string list;
    for (std::size_t i = 0; i < size; ++i) {
        char part[8];
        std::snprintf(part, sizeof part, hexadecimal ? "%02x" : "%u", unsigned{bytes[i]});
        list += (i == 0 ? "" : hexadecimal ? ":" : ".") + std::string(part);
    }
    return list;
}

std::string padded_string(const unsigned char* bytes, std::size_t size) {
    return std::string(bytes, std::find(bytes, bytes + size, '\0'));
}

std::optional<std::vector<unsigned char>> parse_bytes(const std::string& input) {
    const std::size_t first_separator = input.find_first_of(".,:");
    const char separator = first_separator == std::string::npos ? ',' : input[first_separator];
    const int base = separator == ':' ? 16 : 10;
    std::vector<unsigned char> bytes;
    for (std::size_t begin = 0; begin <= input.size();) {
        const std::size_t end = std::min(input.find(separator, begin), input.size());
        unsigned char byte = 0;
        const auto [stop, error] =
            std::from_chars(input.data() + begin, input.data() + end, byte, base);
        if (error != std::errc() || stop != input.data() + end) {
            return std::nullopt;
        }
        bytes.push_back(byte);
        begin = end + 1;
    }
    return bytes;
}

std::vector<std::string> value_lines(const Json& value) {
    std::vector<Row> rows;
    flatten(value, "", rows);
    std::size_t width = 0;
    for (const Row& row : rows) {
        width = std::max(width, row.first.size());
    }
    std::vector<std::string> lines;
    for (auto& [key, shown] : rows) {
        if (width > 0) {
            key.resize(width + 2, ' ');
        }
        lines.push_back(key + shown);
    }
    return lines;
}

}  // namespace jovu_cli
