// SPDX-License-Identifier: Apache-2.0
#include "cli/suggestions.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <optional>
#include <utility>

namespace jovu_cli {
namespace {

constexpr std::size_t kMaxSuggestions = 5;

/// Number of characters to insert, delete, replace, or swap with their neighbour.
std::size_t edit_distance(const std::string& a, const std::string& b) {
    const std::size_t width = b.size() + 1;
    std::vector<std::size_t> table((a.size() + 1) * width);
    const auto at = [&](std::size_t i, std::size_t j) -> std::size_t& {
        return table[i * width + j];
    };
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                at(i, j) = i + j;
                continue;
            }
            const std::size_t replaced = a[i - 1] == b[j - 1] ? 0 : 1;
            at(i, j) = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, at(i - 1, j - 1) + replaced});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                at(i, j) = std::min(at(i, j), at(i - 2, j - 2) + 1);
            }
        }
    }
    return at(a.size(), b.size());
}

/// The distance of a name from @p typed, 0 for the closest; nothing when it is not similar.
std::optional<std::size_t> rank(const std::string& typed, const std::string& name) {
    // Names have 5 to 40 characters. With more than a third of them wrong, another name is meant.
    const std::size_t tolerated = std::max<std::size_t>(1, typed.size() / 4);
    const std::size_t distance = edit_distance(typed, name);
    if (distance <= tolerated) {
        return distance;
    }
    const std::size_t position = name.find(typed);
    if (typed.size() < 2 || position == std::string::npos) {
        return std::nullopt;
    }
    return tolerated + (position == 0 ? 1 : 2);
}

}  // namespace

std::vector<std::string> suggestions(const std::string& typed,
                                     const std::vector<std::string>& names) {
    // Longer than any name; bounds the table of distances.
    constexpr std::size_t kMaxLength = 100;
    if (typed.empty() || typed.size() > kMaxLength) {
        return {};
    }
    std::vector<std::pair<std::size_t, std::string>> ranked;
    for (const std::string& name : names) {
        if (const std::optional<std::size_t> far = rank(lower_case(typed), lower_case(name))) {
            ranked.emplace_back(*far, name);
        }
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> near;
    for (const auto& entry : ranked) {
        if (near.size() < kMaxSuggestions) {
            near.push_back(entry.second);
        }
    }
    return near;
}

std::string did_you_mean(const std::string& typed, const std::vector<std::string>& names) {
    const std::vector<std::string> near = suggestions(typed, names);
    if (near.empty()) {
        return {};
    }
    std::string question = "did you mean ";
    for (std::size_t i = 0; i < near.size(); ++i) {
        question += (i == 0 ? "" : i + 1 == near.size() ? " or " : ", ") + near[i];
    }
    return question + "?";
}

std::string lower_case(std::string value) {
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return value;
}

}  // namespace jovu_cli
