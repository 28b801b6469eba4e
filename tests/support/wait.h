// SPDX-License-Identifier: Apache-2.0

/// @file
/// Waiting for something to become true.
#pragma once

#include <chrono>
#include <thread>

namespace test {

/// Generous: a loaded machine must not fail a test, and a test that passes never waits this long.
inline constexpr std::chrono::seconds kPatience{60};

/// @return whether @p condition came true within @p limit.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(4));
    }
    return true;
}

}  // namespace test
