#include "firmware/wire_rules.h"

#include <cfloat>
#include <cmath>

#include "firmware/protocol_violations.h"
#include "firmware/values.h"

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
    // The host widens floats: whatever was one still is one.
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

}  // namespace jovusim
