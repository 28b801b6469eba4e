#include "firmware/misbehaviour.h"

namespace jovusim {

std::optional<Corruption> corruption_from_name(std::string_view name) {
    constexpr std::array<std::string_view, kCorruptionCount> kNames = {
        "check", "terminator", "json", "attrs", "id", "truncate"};
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<Corruption>(i);
    }
    return std::nullopt;
}

}  // namespace jovusim
