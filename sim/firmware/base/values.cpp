// SPDX-License-Identifier: Apache-2.0
#include "firmware/base/values.h"

#include <cfloat>
#include <cmath>

#include "firmware/base/host_input.h"

namespace jovusim {

namespace {

using Violation = std::optional<std::string>;

/// Prepends the path of an element: "ip[3] is ..." becomes "[0].ip[3] is ...".
Violation within(const std::string& path, Violation violation) {
    if (!violation) return violation;
    const bool nested = violation->front() == '[' || violation->front() == '.';
    return path + (nested ? "" : " ") + *violation;
}

Violation check_integer(const Json& value, const Rule& rule) {
    if (!value.is_number_integer()) return "is " + excerpt(value.dump()) + ", not an integer";
    if (value < rule.least || value > rule.most) {
        return "is " + value.dump() + ", outside " + std::to_string(rule.least) + ".." +
               std::to_string(rule.most);
    }
    return std::nullopt;
}

Violation check_real(const Json& value, bool single) {
    if (!value.is_number()) return "is " + excerpt(value.dump()) + ", not a number";
    const double number = value.get<double>();
    if (!std::isfinite(number)) return "is not finite";
    if (!single) return std::nullopt;
    // The host widens floats to doubles, which keeps their values.
    if (std::fabs(number) > static_cast<double>(FLT_MAX) ||
        static_cast<double>(static_cast<float>(number)) != number) {
        return "is " + value.dump() + ", which a float cannot represent";
    }
    return std::nullopt;
}

Violation check_array(const Json& value, const Rule& rule) {
    if (!value.is_array()) return "is " + excerpt(value.dump()) + ", not an array";
    if (value.size() != rule.count) {
        return "has " + std::to_string(value.size()) + " elements, not " +
               std::to_string(rule.count);
    }
    for (std::size_t i = 0; i < value.size(); ++i) {
        Violation violation = check_value(value[i], *rule.element);
        if (violation) return within("[" + std::to_string(i) + "]", std::move(violation));
    }
    return std::nullopt;
}

Violation check_object(const Json& value, const Rule& rule) {
    if (!value.is_object()) return "is " + excerpt(value.dump()) + ", not an object";
    const Member* member = rule.members;
    const Member* const end = rule.members + rule.count;
    for (const auto& [key, element] : value.items()) {
        if (member == end) return "has a member \"" + excerpt(key) + "\" more than expected";
        if (key != member->key) {
            return "has \"" + excerpt(key) + "\" instead of \"" + member->key + "\"";
        }
        Violation violation = check_value(element, *member->rule);
        if (violation) return within("." + key, std::move(violation));
        ++member;
    }
    if (member != end) return std::string("lacks \"") + member->key + "\"";
    return std::nullopt;
}

}  // namespace

std::optional<std::string> check_value(const Json& value, const Rule& rule) {
    switch (rule.kind) {
        case Rule::Kind::integer:
            return check_integer(value, rule);
        case Rule::Kind::single:
            return check_real(value, true);
        case Rule::Kind::real:
            return check_real(value, false);
        case Rule::Kind::string:
            return check_string(value);
        case Rule::Kind::array:
            return check_array(value, rule);
        case Rule::Kind::object:
            return check_object(value, rule);
    }
    return std::nullopt;
}

namespace {
constexpr int kByteMin = -128;
constexpr int kByteMax = 127;
}  // namespace

Json string_to_json(const std::string& text) {
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<int>(static_cast<signed char>(c)));
    array.push_back(0);
    return array;
}

std::optional<std::string> check_string(const Json& value) {
    if (!value.is_array()) return "is not an array";
    if (value.empty()) return "is an empty array without the terminating 0";
    for (std::size_t i = 0; i < value.size(); ++i) {
        const Json& element = value[i];
        const std::string where = "element " + std::to_string(i) + " ";
        if (!element.is_number_integer()) return where + "is not an integer";
        if (element < kByteMin || element > kByteMax) {
            return where + "is " + element.dump() + ", outside -128..127";
        }
        const bool last = i + 1 == value.size();
        if (last && element != 0) return where + "is the last one and not 0";
        if (!last && element == 0) return where + "is 0 before the end";
    }
    return std::nullopt;
}

std::optional<std::string> string_from_json(const Json& value) {
    if (check_string(value)) return std::nullopt;
    std::string text;
    for (const Json& element : value)
        text += static_cast<char>(element.get<int>());
    text.pop_back();
    return text;
}

Json signed_field(std::string text, std::size_t size) {
    text.resize(size);
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<signed char>(c));
    return array;
}

Json unsigned_field(std::string text, std::size_t size) {
    text.resize(size);
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<unsigned char>(c));
    return array;
}

std::string string_of_field(const Json& field) {
    std::string text;
    for (const Json& element : field) {
        if (element == 0) break;
        text += static_cast<char>(element.get<int>());
    }
    return text;
}

}  // namespace jovusim
