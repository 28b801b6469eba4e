// SPDX-License-Identifier: Apache-2.0

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

/// A queue of runs. A run is output that starts with a new packet and ends with a short packet,
/// which may be empty.
class TransmitQueue {
public:
    /// Queues one run. Drops and counts it when a megabyte is queued already.
    /// @param not_before  the first moment at which the host can receive it
    /// @param packet_size 1 to kMaxPacket
    void push(std::string run, Millis not_before, std::size_t packet_size = kMaxPacket);

    /// Queues a run of low priority: drops and counts it when half a megabyte is queued.
    void push_minor(std::string run, Millis not_before);

    /// Drops the runs of low priority of which nothing has been sent.
    void drop_minor();

    /// Queues count runs. Each is made when the previous one has been sent.
    void push_burst(std::uint64_t count, std::function<std::string(std::uint64_t)> make);

    /// Removes and returns the next packet that is due.
    std::optional<std::string> next_packet(Millis now);

    /// When the first packet is due; nothing when the queue is empty.
    std::optional<Millis> next_due() const;

    /// How many runs of low priority are queued.
    std::size_t minor_count() const { return minor_; }

    /// When the host last received a packet; nothing before the first one.
    std::optional<Millis> last_read() const { return last_read_; }

    /// Drops everything.
    void clear();

    std::uint64_t dropped() const { return dropped_; }

private:
    struct Run {
        std::string bytes;
        Millis not_before = 0;
        bool minor = false;  ///< of low priority
        std::size_t packet_size = kMaxPacket;
        std::uint64_t more = 0;  ///< runs of a burst that follow this one
        std::uint64_t made = 0;
        std::function<std::string(std::uint64_t)> make;
    };

    void finish_run();

    std::deque<Run> runs_;
    std::size_t offset_ = 0;  ///< bytes of the first run that have been sent
    std::size_t waiting_ = 0;
    std::size_t minor_ = 0;
    std::optional<Millis> last_read_;
    std::uint64_t dropped_ = 0;
};

/// Ways to corrupt a response.
enum class Corruption : std::uint8_t {
    check,       ///< the length check of the frame is wrong
    terminator,  ///< the frame ends with another byte than ";"
    json,        ///< the last character is missing
    attrs,       ///< the envelope has no "attrs"
    id,          ///< the id belongs to no request
    truncate,    ///< only the first half of the bytes is sent
};
constexpr std::size_t kCorruptionCount = 6;

/// Returns the corruption of that name ("check", "terminator", ...), or nothing.
std::optional<Corruption> corruption_from_name(std::string_view name);

/// Counts how often a fault is still to happen.
class Countdown {
public:
    void set(std::uint32_t times) { left_ = times; }

    /// Returns whether the fault happens now, and counts it.
    bool take() {
        if (left_ == 0) return false;
        if (left_ != kAlways) --left_;
        return true;
    }

private:
    std::uint32_t left_ = 0;
};

/// The faults that are set. Responses include the status reports of the job channel. Not
/// thread-safe.
struct ResponseFaults {
    Countdown silent;  ///< carry out the request, send no response
    Countdown drop;    ///< ignore the request
    std::array<Countdown, kCorruptionCount> corrupt;
    Millis delay = 0;                      ///< between a request and its response
    std::size_t packet_size = kMaxPacket;  ///< of responses
    std::uint32_t deep = 0;                ///< nesting of the next result; 0 = unchanged

    bool take(Corruption kind) { return corrupt[static_cast<std::size_t>(kind)].take(); }
};

}  // namespace jovusim
