// SPDX-License-Identifier: Apache-2.0

/// @file
/// Framing by its description, apart from the library's.
#pragma once

#include <string>

namespace test {

inline std::string framed(const std::string& payload) {
    const std::size_t length = payload.size() + 1;
    std::string frame = "$";
    for (const std::size_t word : {length, ~length}) {
        frame.push_back(static_cast<char>(word & 0xFFU));
        frame.push_back(static_cast<char>(word >> 8U & 0xFFU));
    }
    return frame + payload + ";";
}

}  // namespace test
