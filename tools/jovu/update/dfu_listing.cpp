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

/// A line for one alternate setting of a device.
struct Line {
    ListedDevice device;
    std::string setting;
};

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

/// Takes the text up to a mark, and the mark, off the front.
std::optional<std::string_view> take_to(std::string_view& text, char mark) {
    const std::size_t end = text.find(mark);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end + 1);
    return taken;
}

/// Takes the value of a key off the front: a word, or anything but quotes between two of them.
std::optional<std::string_view> take_value(std::string_view& text) {
    if (starts_with(text, "\"")) {
        text.remove_prefix(1);
        return take_to(text, '"');
    }
    const std::string_view value = text.substr(0, text.find(','));
    text.remove_prefix(value.size());
    return is_word(value) ? std::optional(value) : std::nullopt;
}

/// Reads " key=value, key=value" to the end.
std::optional<std::map<std::string, std::string>> read_keys(std::string_view text) {
    std::map<std::string, std::string> keys;
    for (std::string_view before = " "; !text.empty(); before = ", ") {
        if (!starts_with(text, before)) {
            return std::nullopt;
        }
        text.remove_prefix(before.size());
        const std::optional<std::string_view> key = take_to(text, '=');
        const std::optional<std::string_view> value = key ? take_value(text) : std::nullopt;
        if (!value || !is_word(*key) || !keys.emplace(*key, *value).second) {
            return std::nullopt;
        }
    }
    return keys;
}

std::optional<Line> read_line(std::string_view text) {
    text.remove_prefix(kDfuLine.size());
    const std::optional<std::string_view> vendor = take_to(text, ':');
    const std::optional<std::string_view> product = vendor ? take_to(text, ']') : std::nullopt;
    if (!product || !is_word(*vendor) || !is_word(*product)) {
        return std::nullopt;
    }
    auto keys = read_keys(text);
    if (!keys || keys->count("serial") == 0) {
        return std::nullopt;
    }
    Line line;
    line.device.id = {std::string(*vendor), std::string(*product), (*keys)["serial"]};
    line.device.path = (*keys)["path"];
    if (line.device.path.find_first_not_of("0123456789-.") != std::string::npos) {
        return std::nullopt;
    }
    line.setting = (*keys)["cfg"] + "," + (*keys)["intf"] + "," + (*keys)["alt"];
    const std::string& number = (*keys)["devnum"];
    const char* const end = number.data() + number.size();
    const auto [stop, error] = std::from_chars(number.data(), end, line.device.number);
    return error == std::errc() && stop == end ? std::optional(line) : std::nullopt;
}

bool same_device(const ListedDevice& a, const ListedDevice& b) {
    return a.kind() == b.kind() && a.id.serial == b.id.serial;
}

}  // namespace

bool is_word(std::string_view text) {
    constexpr std::string_view kCharacters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    return !text.empty() && text.find_first_not_of(kCharacters) == std::string_view::npos;
}

std::string ListedDevice::location() const {
    return path.empty() ? "number " + std::to_string(number) : path;
}

bool same_location(const ListedDevice& a, const ListedDevice& b) {
    return a.number == b.number && a.path == b.path;
}

DfuListing parse_dfu_listing(std::string_view output) {
    DfuListing listing;
    std::vector<Line> lines;
    bool listing_begun = false;
    while (!output.empty()) {
        const std::string_view text = output.substr(0, output.find('\n'));
        output.remove_prefix(std::min(text.size() + 1, output.size()));
        listing_begun = listing_begun || starts_with(text, kAnyLine);
        if (!listing_begun || text.empty() || starts_with(text, kRuntimeLine)) {
            continue;
        }
        std::optional<Line> line;
        if (starts_with(text, kDfuLine)) {
            line = read_line(text);
        }
        if (!line) {
            listing.refused.emplace_back(text);
            continue;
        }
        bool known = false;
        bool contradicts = false;
        for (const Line& other : lines) {
            if (same_location(other.device, line->device)) {
                known = true;
                contradicts = contradicts || !same_device(other.device, line->device) ||
                              other.setting == line->setting;
            }
        }
        if (contradicts) {
            listing.refused.emplace_back(text);
        } else if (!known) {
            listing.devices.push_back(line->device);
        }
        lines.push_back(std::move(*line));
    }
    return listing;
}

}  // namespace jovu_cli
