// SPDX-License-Identifier: Apache-2.0
#include "core/frame.h"

#include <cstring>

#include "jovu/exception.h"

namespace jovu {

Frame make_frame(std::string payload) {
    if (payload.size() > kMaxFramePayload) {
        throw JovuException(
            "Send failed - message of " + std::to_string(payload.size()) + " bytes is too long.",
            JovuError::rejected);
    }
    Frame frame{{}, std::move(payload)};
    frame.body.push_back(static_cast<char>(kFrameTerminator));
    const std::size_t length = frame.body.size();
    const auto low = static_cast<unsigned char>(length & 0xFFU);
    const auto high = static_cast<unsigned char>(length >> 8U);
    frame.header[0] = kFrameStart;
    frame.header[1] = low;
    frame.header[2] = high;
    frame.header[3] = static_cast<unsigned char>(~low);
    frame.header[4] = static_cast<unsigned char>(~high);
    return frame;
}

void FrameDecoder::reset() noexcept {
    *this = FrameDecoder();
}

void FrameDecoder::take_header(unsigned char byte) {
    if (state_ == State::start) {
        if (byte == kFrameStart) state_ = State::header;
        return;
    }
    std::uint16_t& word = header_bytes_ < 2 ? length_ : length_check_;
    word = static_cast<std::uint16_t>(word | (byte << (8U * (header_bytes_ % 2))));
    if (++header_bytes_ < kFrameHeaderSize - 1) return;
    if ((length_ ^ length_check_) != 0xFFFF) {
        reset();
        return;
    }
    // The terminator is counted but not part of the payload. A length of 0 wraps to 65535 here, as
    // the devices' own framing has it.
    --length_;
    remaining_ = length_;
    buffer_ = std::make_unique<unsigned char[]>(length_);
    state_ = State::payload;
}

std::size_t FrameDecoder::take_payload(const unsigned char* data, std::size_t size) {
    const std::size_t taken = std::min<std::size_t>(size, remaining_);
    std::memcpy(buffer_.get() + (length_ - remaining_), data, taken);
    remaining_ = static_cast<std::uint16_t>(remaining_ - taken);
    if (remaining_ == 0) state_ = State::terminator;
    return taken;
}

}  // namespace jovu
