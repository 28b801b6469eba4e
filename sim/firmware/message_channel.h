/// @file
/// The firmware's end of the message channel: commands in, answers and events out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "firmware/commands.h"
#include "firmware/complaints.h"
#include "firmware/frame.h"
#include "firmware/misbehaviour.h"
#include "firmware/outbox.h"
#include "firmware/request.h"

namespace jovusim {

/// The longest text of a debug event: its frame has room for it whatever its bytes are.
constexpr std::size_t kLongestEventText = 12000;

/// Reads frames, carries commands out and queues answers and events.
class MessageChannel {
public:
    MessageChannel(const Identity& identity, Machine& machine, Misbehaviour& faults,
                   Complaints& complaints);

    void receive(const std::uint8_t* data, std::size_t size, Millis now);

    /// Drops a frame that has begun and all output.
    void reset();

    /// Queues a debug event with that text, or the first kLongestEventText bytes of it.
    void send_debug_event(const std::string& text, Millis now);

    /// Queues a trace event for each sample.
    void send_samples(const std::vector<TraceSample>& samples, Millis now);

    /// Queues that many debug events at once.
    void flood(std::uint64_t events);

    Outbox& outbox() { return outbox_; }
    const Outbox& outbox() const { return outbox_; }
    Json stats() const;

private:
    void handle(const std::string& payload, Millis now);
    void answer(const Request& request, const Json* result, Millis now);
    std::string debug_event(const std::string& text);
    std::string trace_event(const TraceSample& sample);

    const Identity& identity_;
    Machine& machine_;
    Misbehaviour& faults_;
    Complaints& complaints_;
    FrameReader reader_;
    Outbox outbox_;
    GcodeInterpreter gcode_;
    Millis last_byte_ = 0;
    std::uint32_t next_event_id_ = 1;
    std::uint64_t answers_ = 0;
    std::uint64_t events_ = 0;
    std::map<std::string, std::uint64_t> commands_;
};

}  // namespace jovusim
