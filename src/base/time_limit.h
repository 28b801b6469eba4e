// SPDX-License-Identifier: Apache-2.0

/// @file
/// The range of the time limits that an application may set.
#pragma once

#include <chrono>
#include <string>

#include "jovu/exception.h"

namespace jovu {

/// Shorter, a device that is well could not respond in time on a busy machine.
inline constexpr std::chrono::milliseconds kShortestTimeLimit{10};

/// A day; time points that far ahead cannot overflow.
inline constexpr std::chrono::milliseconds kLongestTimeLimit = std::chrono::hours(24);

/// @param what names the limit at the beginning of the message.
/// @throws JovuException unless the limit is in the range.
inline void check_time_limit(const char* what, std::chrono::milliseconds limit) {
    if (limit >= kShortestTimeLimit && limit <= kLongestTimeLimit) return;
    throw JovuException(std::string(what) + " of " + std::to_string(limit.count()) +
                            " ms refused - choose 10 ms to 24 h.",
                        JovuError::rejected);
}

}  // namespace jovu
