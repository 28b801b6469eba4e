/// @file
/// Output of the device on one IN endpoint, and the faults injected into its responses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "firmware/base/types.h"

namespace jovusim {

/// The size of the largest packet on a bulk endpoint of this device.
constexpr std::size_t kMaxPacket = 64;

/// A queue of runs: a run is a piece of output that shares no packet with another one and ends with
/// a short packet, an empty one if need be.
class TransmitQueue {
public:
    /// Queues one run. Dropped and counted when the host reads so slowly that a megabyte waits.
    /// @param not_before  the first moment at which the host may see it
    /// @param packet_size 1 to kMaxPacket
    void push(std::string run, Millis not_before, std::size_t packet_size = kMaxPacket);

    /// Queues a run that leaves room for others: dropped and counted already at half of that.
    void push_minor(std::string run, Millis not_before);

    /// Queues count runs that are made one at a time, when the host gets to them.
    void push_burst(std::uint64_t count, std::function<std::string(std::uint64_t)> make);

    /// The next packet, if one may be seen at that moment.
    std::optional<std::string> next_packet(Millis now);

    /// When the packet in front may be seen; nothing when there is none.
    std::optional<Millis> next_due() const;

    /// Drops everything.
    void clear();

    std::uint64_t dropped() const { return dropped_; }

private:
    struct Run {
        std::string bytes;
        Millis not_before = 0;
        std::size_t packet_size = kMaxPacket;
        std::uint64_t more = 0;  ///< runs of a burst that follow this one
        std::uint64_t made = 0;
        std::function<std::string(std::uint64_t)> make;
    };

    void finish_run();

    std::deque<Run> runs_;
    std::size_t offset_ = 0;  ///< bytes of the front run that are gone
    std::size_t waiting_ = 0;
    std::uint64_t dropped_ = 0;
};

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
