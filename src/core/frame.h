// SPDX-License-Identifier: Apache-2.0

/// @file
/// Frames of the message channel: start, length, complement, payload, terminator.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace jovu {

inline constexpr unsigned char kFrameStart = '$';
inline constexpr unsigned char kFrameTerminator = ';';
inline constexpr std::size_t kFrameHeaderSize = 5;  ///< Start, length and its complement.

/// The longest payload: the 16-bit length counts the terminator as well.
inline constexpr std::size_t kMaxFramePayload = 65534;

/// A payload ready to be written: the header and the body belong together on the wire.
struct Frame {
    unsigned char header[kFrameHeaderSize];
    std::string body;  ///< Payload and terminator.
};

/// Frames one payload.
/// @throws JovuException when it is longer than kMaxFramePayload; the length would wrap, and the
///     device would take the rest of the payload for frames.
Frame make_frame(std::string payload);

/// Cuts the bytes of one device into frames. What it holds survives between calls, so a frame may
/// be split in any way.
///
/// A header that fails its check is dropped and scanning goes on behind it; a frame that does not
/// end in its terminator is dropped whole and scanning goes on at the offending byte.
class FrameDecoder {
public:
    /// Feeds @p size bytes; calls `on_payload(unsigned char* payload, unsigned length)` for every
    /// complete frame, in order. The payload lives during the call. An exception from it passes on;
    /// the decoder is ready for the next frame then, and the rest of the bytes is lost.
    template <class OnPayload>
    void feed(const unsigned char* data, std::size_t size, OnPayload&& on_payload) {
        std::size_t i = 0;
        while (i < size) {
            if (state_ == State::payload) {
                i += take_payload(data + i, size - i);
            } else if (state_ == State::terminator) {
                if (data[i] != kFrameTerminator) {
                    reset();
                    continue;
                }
                ++i;
                const std::unique_ptr<unsigned char[]> payload = std::move(buffer_);
                const unsigned length = length_;
                reset();
                on_payload(payload.get(), length);
            } else {
                take_header(data[i++]);
            }
        }
    }

private:
    enum class State { start, header, payload, terminator };

    void take_header(unsigned char byte);
    std::size_t take_payload(const unsigned char* data, std::size_t size);
    void reset() noexcept;

    State state_ = State::start;
    unsigned header_bytes_ = 0;
    std::uint16_t length_ = 0;  ///< Of the payload, once the header is complete.
    std::uint16_t length_check_ = 0;
    std::uint16_t remaining_ = 0;
    std::unique_ptr<unsigned char[]> buffer_;
};

}  // namespace jovu
