/// @file
/// The firmware's end of the message channel: commands in, responses and events out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "firmware/commands.h"
#include "firmware/frame.h"
#include "firmware/protocol_violations.h"
#include "firmware/request.h"
#include "firmware/response_faults.h"
#include "firmware/transmit_queue.h"

namespace jovusim {

/// The longest text of a debug event: its frame has room for it whatever its bytes are.
constexpr std::size_t kMaxEventString = 12000;

/// Reads frames, carries commands out and queues responses and events.
class MessageChannel {
public:
    MessageChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
                   ProtocolViolations& violations);

    void receive(const std::uint8_t* data, std::size_t size, Millis now);

    /// Drops a frame that has begun and all output.
    void reset();

    /// Queues a debug event with that text, or the first kMaxEventString bytes of it.
    void send_debug_event(const std::string& text, Millis now);

    /// Queues a trace event for each sample.
    void send_samples(const std::vector<TraceSample>& samples, Millis now);

    /// Queues that many debug events at once.
    void flood(std::uint64_t events);

    TransmitQueue& transmit_queue() { return transmit_queue_; }
    const TransmitQueue& transmit_queue() const { return transmit_queue_; }
    Json stats() const;

private:
    void handle(const std::string& payload, Millis now);
    void respond(const Request& request, const Json* result, Millis now);
    std::string debug_event(const std::string& text);
    std::string trace_event(const TraceSample& sample);

    const Identity& identity_;
    Machine& machine_;
    ResponseFaults& faults_;
    ProtocolViolations& violations_;
    FrameReader reader_;
    TransmitQueue transmit_queue_;
    GcodeInterpreter gcode_;
    Millis last_byte_ = 0;
    std::uint32_t next_event_id_ = 1;
    std::uint64_t responses_ = 0;
    std::uint64_t events_ = 0;
    std::map<std::string, std::uint64_t> commands_;
};

}  // namespace jovusim
