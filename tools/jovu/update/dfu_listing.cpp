// SPDX-License-Identifier: Apache-2.0
#include "update/dfu_listing.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <utility>

namespace jovu_cli {
namespace {

constexpr std::string_view kDfuLine = "Found DFU: [";
constexpr std::string_view kRuntimeLine = "Found Runtime: [";
constexpr std::string_view kAnyLine = "Found ";

/// One line: an alternate setting of a device.
struct Setting {
    ListedDevice device;
    std::string numbers;  ///< Of configuration, interface and setting.
};

bool starts_with(std::string_view line, std::string_view start) {
    return line.substr(0, start.size()) == start;
}

/// Removes the characters up to and including a mark from the front.
/// @return them without the mark.
std::optional<std::string_view> take_to(std::string_view& line, char mark) {
    const std::size_t end = line.find(mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = line.substr(0, end);
    line.remove_prefix(end + 1);
    return taken;
}

/// Removes the value of a key from the front: a word, or characters between quotes.
std::optional<std::string_view> take_value(std::string_view& line) {
    if (starts_with(line, "\"")) {
        line.remove_prefix(1);
        return take_to(line, '"');
    }
    const std::string_view value = line.substr(0, line.find(','));
    line.remove_prefix(value.size());
    return is_word(value) ? std::optional(value) : std::nullopt;
}

/// Reads " key=value, key=value" to the end.
std::optional<std::map<std::string, std::string>> read_keys(std::string_view line) {
    std::map<std::string, std::string> keys;
    for (std::string_view before = " "; !line.empty(); before = ", ") {
        if (!starts_with(line, before)) {
            return std::nullopt;
        }
        line.remove_prefix(before.size());
        const std::optional<std::string_view> key = take_to(line, '=');
        const std::optional<std::string_view> value = key ? take_value(line) : std::nullopt;
        if (!value || !is_word(*key) || !keys.emplace(*key, *value).second) {
            return std::nullopt;
        }
    }
    return keys;
}

std::optional<Setting> read_setting(std::string_view rest) {
    rest.remove_prefix(kDfuLine.size());
    const std::optional<std::string_view> vendor = take_to(rest, ':');
    const std::optional<std::string_view> product = vendor ? take_to(rest, ']') : std::nullopt;
    if (!product || !is_word(*vendor) || !is_word(*product)) {
        return std::nullopt;
    }
    auto keys = read_keys(rest);
    if (!keys || keys->count("serial") == 0) {
        return std::nullopt;
    }
    Setting setting;
    setting.device.id = {std::string(*vendor), std::string(*product), (*keys)["serial"]};
    setting.device.path = (*keys)["path"];
    if (setting.device.path.find_first_not_of("0123456789-.") != std::string::npos) {
        return std::nullopt;
    }
    setting.numbers = (*keys)["cfg"] + "," + (*keys)["intf"] + "," + (*keys)["alt"];
    const std::string& number = (*keys)["devnum"];
    const char* const end = number.data() + number.size();
    const auto [stop, error] = std::from_chars(number.data(), end, setting.device.number);
    return error == std::errc() && stop == end ? std::optional(setting) : std::nullopt;
}

bool same_device(const ListedDevice& a, const ListedDevice& b) {
    return a.kind() == b.kind() && a.id.serial == b.id.serial;
}

}  // namespace

bool is_word(std::string_view value) {
    constexpr std::string_view kCharacters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    return !value.empty() && value.find_first_not_of(kCharacters) == std::string_view::npos;
}

std::string ListedDevice::location() const {
    return path.empty() ? "number " + std::to_string(number) : path;
}

bool same_location(const ListedDevice& a, const ListedDevice& b) {
    return a.number == b.number && a.path == b.path;
}

DfuListing parse_dfu_listing(std::string_view output) {
    DfuListing listing;
    std::vector<Setting> settings;
    bool listing_begun = false;
    while (!output.empty()) {
        const std::string_view line = output.substr(0, output.find('\n'));
        output.remove_prefix(std::min(line.size() + 1, output.size()));
        listing_begun = listing_begun || starts_with(line, kAnyLine);
        if (!listing_begun || line.empty() || starts_with(line, kRuntimeLine)) {
            continue;
        }
        std::optional<Setting> setting;
        if (starts_with(line, kDfuLine)) {
            setting = read_setting(line);
        }
        if (!setting) {
            listing.refused.emplace_back(line);
            continue;
        }
        bool known = false;
        bool contradicts = false;
        for (const Setting& other : settings) {
            if (same_location(other.device, setting->device)) {
                known = true;
                contradicts = contradicts || !same_device(other.device, setting->device) ||
                              other.numbers == setting->numbers;
            }
        }
        if (contradicts) {
            listing.refused.emplace_back(line);
        } else if (!known) {
            listing.devices.push_back(setting->device);
        }
        settings.push_back(std::move(*setting));
    }
    return listing;
}

}  // namespace jovu_cli
