/// @file
/// The firmware's switchboard of faults: how its responses go wrong on demand.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "firmware/transmit_queue.h"
#include "firmware/types.h"

namespace jovusim {

/// What may be wrong with a response.
enum class Corruption : std::uint8_t {
    check,       ///< the frame's length check does not fit its length
    terminator,  ///< the frame ends with another byte than ";"
    json,        ///< the text lacks its last character, so it is no JSON
    attrs,       ///< the envelope has no "attrs"
    id,          ///< the response's id is one that nobody asked under
    truncate,    ///< only the first half of the response's bytes is sent
};
constexpr std::size_t kCorruptionCount = 6;

/// The kind of that name ("check", "terminator", ...), or nothing.
std::optional<Corruption> corruption_from_name(std::string_view name);

/// Counts down the times that a fault is still to happen.
class Countdown {
public:
    void set(std::uint32_t times) { left_ = times; }

    /// Whether the fault happens now; counts it.
    bool take() {
        if (left_ == 0) return false;
        if (left_ != kAlways) --left_;
        return true;
    }

private:
    std::uint32_t left_ = 0;
};

/// The faults that are set. "Answers" are responses on the message channel and status reports on
/// the job channel. Plain values: whoever changes them holds the model's lock.
struct ResponseFaults {
    Countdown silent;  ///< carry the request out, do not response
    Countdown drop;    ///< do not even carry it out
    std::array<Countdown, kCorruptionCount> corrupt;
    Millis delay = 0;                      ///< between a request and its response
    std::size_t packet_size = kMaxPacket;  ///< of responses
    std::uint32_t deep = 0;                ///< nesting of the next response's result; 0 = as it is

    bool take(Corruption kind) { return corrupt[static_cast<std::size_t>(kind)].take(); }
};

}  // namespace jovusim
