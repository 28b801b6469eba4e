/// @file
/// Frames of the message channel:
///
///     "$"  length (2)  complement of length (2)  payload  ";"
///
/// Both words are little-endian; length counts the payload and the terminator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "firmware/protocol_violations.h"
#include "firmware/types.h"

namespace jovusim {

constexpr char kFrameStart = '$';
constexpr char kFrameEnd = ';';
constexpr std::size_t kFrameHeaderSize = 5;

/// The longest payload that a frame can carry: its length word also counts the terminator.
constexpr std::size_t kMaxFramePayload = 0xFFFE;

/// Wraps a payload of at most kMaxFramePayload bytes. @throws std::length_error for a longer one.
std::string encode_frame(std::string_view payload);

/// Finds the frames in a stream of bytes. A damaged frame is dropped with a violation, and the
/// search goes on behind its header, or at the byte that should have been its terminator.
class FrameReader {
public:
    explicit FrameReader(ProtocolViolations& violations) : violations_(violations) {}

    /// Takes one byte. Returns true when it ended a frame, whose payload() is then valid until the
    /// next byte.
    bool take(char byte);

    const std::string& payload() const { return payload_; }

    /// Whether a frame has begun and not ended.
    bool in_frame() const { return state_ != State::start; }

    /// Forgets a frame that has begun.
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

}  // namespace jovusim
