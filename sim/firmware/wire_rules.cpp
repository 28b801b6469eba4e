#include "firmware/wire_rules.h"

#include <cfloat>
#include <cmath>

#include "firmware/complaints.h"
#include "firmware/values.h"

namespace jovusim {

namespace {

using Fault = std::optional<std::string>;

/// Puts a place in front of a fault: "ip[3] is ..." within an element reads "[0].ip[3] is ...".
Fault at(const std::string& place, Fault fault) {
    if (!fault) return fault;
    const bool nested = fault->front() == '[' || fault->front() == '.';
    return place + (nested ? "" : " ") + *fault;
}

Fault check_integer(const Json& value, const Rule& rule) {
    if (!value.is_number_integer()) return "is " + excerpt(value.dump()) + ", no integer";
    if (value < rule.least || value > rule.most) {
        return "is " + value.dump() + ", outside " + std::to_string(rule.least) + ".." +
               std::to_string(rule.most);
    }
    return std::nullopt;
}

Fault check_real(const Json& value, bool single) {
    if (!value.is_number()) return "is " + excerpt(value.dump()) + ", no number";
    const double number = value.get<double>();
    if (!std::isfinite(number)) return "is not finite";
    if (!single) return std::nullopt;
    // The host widens floats: whatever was one still is one.
    if (std::fabs(number) > static_cast<double>(FLT_MAX) ||
        static_cast<double>(static_cast<float>(number)) != number) {
        return "is " + value.dump() + ", which no float is";
    }
    return std::nullopt;
}

Fault check_array(const Json& value, const Rule& rule) {
    if (!value.is_array()) return "is " + excerpt(value.dump()) + ", no array";
    if (value.size() != rule.count) {
        return "has " + std::to_string(value.size()) + " elements, not " +
               std::to_string(rule.count);
    }
    for (std::size_t i = 0; i < value.size(); ++i) {
        Fault fault = find_fault(value[i], *rule.element);
        if (fault) return at("[" + std::to_string(i) + "]", std::move(fault));
    }
    return std::nullopt;
}

Fault check_object(const Json& value, const Rule& rule) {
    if (!value.is_object()) return "is " + excerpt(value.dump()) + ", no object";
    const Member* member = rule.members;
    const Member* const end = rule.members + rule.count;
    for (const auto& [key, element] : value.items()) {
        if (member == end) return "has a member \"" + excerpt(key) + "\" too many";
        if (key != member->key) {
            return "has \"" + excerpt(key) + "\" in the place of \"" + member->key + "\"";
        }
        Fault fault = find_fault(element, *member->rule);
        if (fault) return at("." + key, std::move(fault));
        ++member;
    }
    if (member != end) return std::string("lacks \"") + member->key + "\"";
    return std::nullopt;
}

}  // namespace

std::optional<std::string> find_fault(const Json& value, const Rule& rule) {
    switch (rule.kind) {
        case Rule::Kind::integer:
            return check_integer(value, rule);
        case Rule::Kind::single:
            return check_real(value, true);
        case Rule::Kind::real:
            return check_real(value, false);
        case Rule::Kind::text:
            return check_text(value);
        case Rule::Kind::array:
            return check_array(value, rule);
        case Rule::Kind::object:
            return check_object(value, rule);
    }
    return std::nullopt;
}

}  // namespace jovusim
