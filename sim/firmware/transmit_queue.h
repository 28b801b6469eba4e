/// @file
/// What the device has to say on one IN endpoint.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "firmware/types.h"

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

}  // namespace jovusim
