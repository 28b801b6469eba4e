// SPDX-License-Identifier: Apache-2.0

/// @file
/// Types that every part of the simulated firmware uses.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

namespace jovusim {

/// A moment or a duration in milliseconds. The owner of the model passes moments in; their zero is
/// arbitrary, and they never decrease.
using Millis = std::int64_t;

/// JSON whose objects keep the order of their members, which is part of the wire format.
using Json = nlohmann::ordered_json;

/// The two channels. Each is an interface with a pair of bulk endpoints.
enum class Channel : std::uint8_t {
    message = 0,  ///< interface 0: framed commands, responses and events
    job = 1,      ///< interface 1: bare JSON objects and job data
};

/// The count of a fault that happens until it is cleared.
constexpr std::uint32_t kAlways = UINT32_MAX;

}  // namespace jovusim
