/// @file
/// RequestReader that every part of the simulated firmware uses.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

namespace jovusim {

/// A moment or a span in milliseconds. Moments are handed in by whoever runs the model; their zero
/// is arbitrary, they never run backwards.
using Millis = std::int64_t;

/// JSON whose objects keep the order of their members, which is part of the wire format.
using Json = nlohmann::ordered_json;

/// The two pairs of bulk endpoints, one pair an interface.
enum class Channel : std::uint8_t {
    message = 0,  ///< interface 0: framed commands, responses and events
    job = 1,      ///< interface 1: bare JSON objects and job data
};

/// How often a fault happens when it is not to stop by itself.
constexpr std::uint32_t kAlways = UINT32_MAX;

}  // namespace jovusim
