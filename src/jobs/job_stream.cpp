// SPDX-License-Identifier: Apache-2.0
#include "jobs/job_stream.h"

namespace jovu {

void JobStream::clear() noexcept {
    buffer_.clear();
    begin_ = scanned_ = opened_ = closed_ = 0;
}

void JobStream::consume_to(std::size_t end) {
    begin_ = scanned_ = end;
    opened_ = closed_ = 0;
    // Moving the rest costs its length, so it is done when at least as much is freed.
    if (begin_ * 2 >= buffer_.size()) {
        buffer_.erase(0, begin_);
        begin_ = scanned_ = 0;
    }
}

std::optional<std::string> JobStream::append(const unsigned char* data, std::size_t bytes) {
    if (size() + bytes > kMaxJobBacklog) clear();
    buffer_.append(reinterpret_cast<const char*>(data), bytes);
    while (scanned_ < buffer_.size()) {
        const char c = buffer_[scanned_++];
        if (c == '{') ++opened_;
        if (c == '}') ++closed_;
        if (closed_ > opened_) {
            consume_to(scanned_);
            return std::nullopt;
        }
        if (opened_ == closed_ && opened_ != 0) {
            std::string object = buffer_.substr(begin_, scanned_ - begin_);
            consume_to(scanned_);
            return object;
        }
    }
    return std::nullopt;
}

}  // namespace jovu
