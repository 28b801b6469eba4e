// SPDX-License-Identifier: Apache-2.0
#include "mqtt/topics.h"

#include <mosquitto.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include "mqtt/error.h"

namespace jovu_mqtt {
namespace {

constexpr std::string_view kHex = "0123456789ABCDEF";

bool is_plain(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9') || character == '.' || character == '_' ||
           character == '-';
}

/// @return the rest of a topic below some levels; nothing when it is not below them.
std::optional<std::string_view> below(std::string_view topic, const std::string& levels) {
    if (topic.substr(0, levels.size()) != levels || topic.substr(levels.size(), 1) != "/") {
        return std::nullopt;
    }
    return topic.substr(levels.size() + 1);
}

}  // namespace

std::string encode_level(std::string_view name) {
    std::string level;
    for (const char character : name) {
        if (is_plain(character)) {
            level += character;
        } else {
            const auto byte = static_cast<unsigned char>(character);
            level += {'%', kHex[byte >> 4U], kHex[byte & 15U]};
        }
    }
    return level;
}

std::optional<std::string> decode_level(std::string_view level) {
    std::string name;
    for (std::size_t at = 0; at < level.size(); ++at) {
        if (level[at] != '%') {
            name += level[at];
            continue;
        }
        if (level.size() - at < 3) {
            return std::nullopt;
        }
        const std::size_t high = kHex.find(level[at + 1]);
        const std::size_t low = kHex.find(level[at + 2]);
        if (high == std::string_view::npos || low == std::string_view::npos) {
            return std::nullopt;
        }
        name += static_cast<char>(high << 4U | low);
        at += 2;
    }
    // A name has one level only, so that the topics of one device cannot be written in two ways.
    if (name.empty() || encode_level(name) != level) {
        return std::nullopt;
    }
    return name;
}

std::string name_of_port(std::string_view port) {
    return "port-" + std::string(port);
}

Topics::Topics(std::string prefix)
    : prefix_(prefix.empty() ? std::string(kDefaultPrefix) : std::move(prefix)) {
    const bool has_empty_level =
        prefix_.front() == '/' || prefix_.back() == '/' || prefix_.find("//") != std::string::npos;
    if (has_empty_level || prefix_.front() == '$' ||
        mosquitto_pub_topic_check2(prefix_.data(), prefix_.size()) != MOSQ_ERR_SUCCESS ||
        mosquitto_validate_utf8(prefix_.data(), static_cast<int>(prefix_.size())) !=
            MOSQ_ERR_SUCCESS) {
        throw Error("invalid topic prefix '" + prefix_ + "'",
                    "a prefix is one or more names separated by '/', without '+' and '#' and "
                    "without a leading '$'");
    }
}

std::string Topics::bridge(std::string_view name) const {
    return prefix_ + "/bridges/" + encode_level(name);
}

std::string Topics::device(std::string_view serial, std::string_view leaf) const {
    return prefix_ + "/devices/" + encode_level(serial) + "/" + std::string(leaf);
}

std::string Topics::request(std::string_view serial, std::string_view operation) const {
    return device(serial, "request/" + std::string(operation));
}

std::string Topics::responses(std::string_view client) const {
    return prefix_ + "/responses/" + encode_level(client);
}

std::string Topics::all_bridges() const {
    return prefix_ + "/bridges/+";
}

std::string Topics::all_devices(std::string_view leaf) const {
    return prefix_ + "/devices/+/" + std::string(leaf);
}

std::string Topics::all_requests(std::string_view serial) const {
    return device(serial, "request/#");
}

std::optional<std::string> Topics::parse_bridge(std::string_view topic) const {
    const auto level = below(topic, prefix_ + "/bridges");
    return level ? decode_level(*level) : std::nullopt;
}

std::optional<DeviceTopic> Topics::parse_device(std::string_view topic) const {
    const auto rest = below(topic, prefix_ + "/devices");
    if (!rest) {
        return std::nullopt;
    }
    const std::size_t slash = rest->find('/');
    if (slash == std::string_view::npos || slash + 1 == rest->size()) {
        return std::nullopt;
    }
    auto serial = decode_level(rest->substr(0, slash));
    if (!serial) {
        return std::nullopt;
    }
    return DeviceTopic{std::move(*serial), std::string(rest->substr(slash + 1))};
}

std::string Topics::refuse_response_topic(std::string_view topic) const {
    if (topic.empty()) {
        return "it is empty";
    }
    if (mosquitto_pub_topic_check2(topic.data(), topic.size()) != MOSQ_ERR_SUCCESS) {
        return "it contains a wildcard, or it is too long";
    }
    if (topic.size() > 65535 ||
        mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) != MOSQ_ERR_SUCCESS) {
        return "it is not valid UTF-8";
    }
    if (topic.front() == '$') {
        return "it begins with '$'";
    }
    for (const char* const owned : {"/devices", "/bridges"}) {
        if (topic == prefix_ + owned || below(topic, prefix_ + owned)) {
            return "it is below " + prefix_ + owned + ", where bridges publish states";
        }
    }
    return "";
}

bool matches_glob(std::string_view pattern, std::string_view name) {
    // After a mismatch, the last '*' takes one more character.
    std::size_t at = 0;
    std::size_t star = std::string_view::npos;
    std::size_t star_end = 0;
    std::size_t next = 0;
    while (next < name.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = at++;
            star_end = next;
        } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == name[next])) {
            ++at;
            ++next;
        } else if (star != std::string_view::npos) {
            at = star + 1;
            next = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

}  // namespace jovu_mqtt
