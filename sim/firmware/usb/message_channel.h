// SPDX-License-Identifier: Apache-2.0

/// @file
/// The message channel of the firmware: frames and commands in, responses and events out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firmware/base/host_input.h"
#include "firmware/base/types.h"
#include "firmware/commands/commands.h"
#include "firmware/usb/transmit_queue.h"

namespace jovusim {

constexpr char kFrameStart = '$';
constexpr char kFrameEnd = ';';
constexpr std::size_t kFrameHeaderSize = 5;

/// The longest payload that a frame can carry: its length word also counts the terminator.
constexpr std::size_t kMaxFramePayload = 0xFFFE;

/// Wraps a payload of at most kMaxFramePayload bytes. @throws std::length_error for a longer one.
std::string encode_frame(std::string_view payload);

/// Finds frames in a stream of bytes. A damaged frame is dropped and recorded as a violation; the
/// search continues after its header, or at the byte in place of its terminator.
class FrameReader {
public:
    explicit FrameReader(ProtocolViolations& violations) : violations_(violations) {}

    /// Takes one byte. Returns true when it completed a frame; payload() is then valid until the
    /// next byte.
    bool take(char byte);

    const std::string& payload() const { return payload_; }

    /// Whether a frame is incomplete.
    bool in_frame() const { return state_ != State::start; }

    /// Drops an incomplete frame.
    void reset();

    std::uint64_t frames() const { return frames_; }

private:
    enum class State { start, header, payload, terminator };

    void read_header();

    ProtocolViolations& violations_;
    State state_ = State::start;
    std::string header_;
    std::string payload_;
    std::size_t expected_ = 0;
    std::uint64_t frames_ = 0;
    bool stray_reported_ = false;
};

/// Longest string of a debug event; every such string fits into a frame.
constexpr std::size_t kMaxEventString = 12000;

/// Reads frames, runs commands and queues responses and events.
class MessageChannel {
public:
    MessageChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
                   ProtocolViolations& violations);

    void receive(const std::uint8_t* data, std::size_t size, Millis now);

    /// Drops an incomplete frame and all output.
    void reset();

    /// Queues a debug event with the first kMaxEventString bytes of a string.
    void send_debug_event(const std::string& text, Millis now);

    /// How many samples may be made now; nothing when the host does not read. The servos wait for a
    /// host that reads more slowly than they make samples.
    /// @param heard when the host could last read
    std::optional<std::size_t> room_for_samples(Millis heard) const;

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
