#include "firmware/response_faults.h"

#include <algorithm>

namespace jovusim {

std::optional<Corruption> corruption_from_name(std::string_view name) {
    constexpr std::array<std::string_view, kCorruptionCount> kNames = {
        "check", "terminator", "json", "attrs", "id", "truncate"};
    const auto* const found = std::find(kNames.begin(), kNames.end(), name);
    if (found == kNames.end()) return std::nullopt;
    return static_cast<Corruption>(found - kNames.begin());
}

}  // namespace jovusim
