/// @file
/// The job channel's stream, cut into objects in the simplest way.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace test {

/// Counts all braces that wait, every time; @return what one call of JobStream::append() gives.
inline std::optional<std::string> cut_plainly(std::string& waiting, const std::string& bytes) {
    waiting += bytes;
    int opened = 0;
    int closed = 0;
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        opened += waiting[i] == '{' ? 1 : 0;
        closed += waiting[i] == '}' ? 1 : 0;
        if (closed < opened || closed == 0) continue;
        const std::string head = waiting.substr(0, i + 1);
        waiting.erase(0, i + 1);
        if (closed > opened) return std::nullopt;
        return head;
    }
    return std::nullopt;
}

}  // namespace test
