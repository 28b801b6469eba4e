// SPDX-License-Identifier: Apache-2.0
#include "firmware/base/host_input.h"

#include <cstdio>
#include <utility>

namespace jovusim {

namespace {
constexpr std::size_t kRemembered = 8;
constexpr std::size_t kPendingLimit = 256;
constexpr std::size_t kExcerptLength = 120;
}  // namespace

void ProtocolViolations::add(std::string sentence) {
    ++count_;
    last_.push_back(sentence);
    if (last_.size() > kRemembered) last_.pop_front();
    // Bounds the memory that a host can fill; the count stays exact.
    if (pending_.size() < kPendingLimit) pending_.push_back(std::move(sentence));
}

std::vector<std::string> ProtocolViolations::take() {
    return std::exchange(pending_, {});
}

Json ProtocolViolations::stats() const {
    return {{"count", count_}, {"last", last_}};
}

std::string excerpt(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (out.size() >= kExcerptLength) return out + "...";
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
            out += escaped;
        }
    }
    return out;
}

namespace {

constexpr int kDeepest = 64;

/// Calls visit with every character that is not in a string, until it returns false.
template <typename Visit>
void outside_strings(const std::string& text, Visit visit) {
    bool in_string = false;
    bool escaped = false;
    for (const char c : text) {
        if (escaped) {
            escaped = false;
        } else if (c == '"') {
            in_string = !in_string;
        } else if (in_string) {
            escaped = c == '\\';
        } else if (!visit(c)) {
            return;
        }
    }
}

bool too_deep(const std::string& text) {
    int depth = 0;
    bool found = false;
    outside_strings(text, [&](char c) {
        if (c == '{' || c == '[') ++depth;
        if (c == '}' || c == ']') --depth;
        found = depth > kDeepest;
        return !found;
    });
    return found;
}

}  // namespace

Json parse_json(const std::string& text) {
    if (too_deep(text)) return Json(Json::value_t::discarded);
    return Json::parse(text, nullptr, false);
}

bool has_blanks(const std::string& text) {
    bool found = false;
    outside_strings(text, [&found](char c) {
        found = c == ' ' || c == '\t' || c == '\n' || c == '\r';
        return !found;
    });
    return found;
}

bool has_members(const Json& object, std::initializer_list<const char*> keys) {
    if (object.size() != keys.size()) return false;
    // items() of an array has the keys "0", "1", ...
    auto expected = keys.begin();
    for (const auto& [key, value] : object.items()) {
        if (key != *expected++) return false;
    }
    return true;
}

}  // namespace jovusim
