#include "firmware/frame.h"

#include <stdexcept>

namespace jovusim {

namespace {

void append_word(std::string& out, unsigned word) {
    out += static_cast<char>(word & 0xFFU);
    out += static_cast<char>((word >> 8U) & 0xFFU);
}

unsigned word_at(const std::string& bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8U;
}

}  // namespace

std::string encode_frame(std::string_view payload) {
    if (payload.size() > kMaxFramePayload) {
        throw std::length_error("a frame cannot carry " + std::to_string(payload.size()) +
                                " bytes");
    }
    const auto length = static_cast<unsigned>(payload.size() + 1);
    std::string frame;
    frame.reserve(kFrameHeaderSize + length);
    frame += kFrameStart;
    append_word(frame, length);
    append_word(frame, ~length);
    frame += payload;
    frame += kFrameEnd;
    return frame;
}

bool FrameReader::take(char byte) {
    switch (state_) {
        case State::start:
            if (byte == kFrameStart) {
                header_.clear();
                stray_reported_ = false;
                state_ = State::header;
            } else if (!stray_reported_) {
                stray_reported_ = true;
                violations_.add("message channel: stray bytes between frames, from \"" +
                                excerpt(std::string(1, byte)) + "\" on");
            }
            return false;
        case State::header:
            header_ += byte;
            if (header_.size() == kFrameHeaderSize - 1) read_header();
            return false;
        case State::payload:
            payload_ += byte;
            if (payload_.size() == expected_) state_ = State::terminator;
            return false;
        case State::terminator:
            break;
    }
    state_ = State::start;
    if (byte == kFrameEnd) {
        ++frames_;
        return true;
    }
    violations_.add("message channel: a frame of " + std::to_string(expected_) +
                    " bytes does not end with \";\"");
    return take(byte);
}

void FrameReader::read_header() {
    const unsigned length = word_at(header_, 0);
    const unsigned check = word_at(header_, 2);
    if ((length ^ check) != 0xFFFFU || length == 0) {
        violations_.add("message channel: frame header with length " + std::to_string(length) +
                        " and length check " + std::to_string(check));
        state_ = State::start;
        return;
    }
    expected_ = length - 1;
    payload_.clear();
    state_ = expected_ == 0 ? State::terminator : State::payload;
}

void FrameReader::reset() {
    state_ = State::start;
}

}  // namespace jovusim
