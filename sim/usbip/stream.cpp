// SPDX-License-Identifier: Apache-2.0
#include "usbip/stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "device/types.h"

namespace jovusim::usbip {

short Stream::events() const {
    const int in = unsent() < kUnsentLimit ? POLLIN : 0;
    const int out = unsent() > 0 ? POLLOUT : 0;
    return static_cast<short>(in | out);
}

void Stream::serve(short events) {
    if ((events & POLLOUT) != 0) flush();
    if ((events & (POLLIN | POLLHUP | POLLERR)) == 0 || ended_) return;
    std::array<char, 65536> buffer;
    const ssize_t size =
        TEMP_FAILURE_RETRY(::recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT));
    if (size > 0) {
        in_.append(buffer.data(), static_cast<std::size_t>(size));
    } else if (size == 0 || errno != EAGAIN) {
        ended_ = true;
    }
}

void Stream::send(const std::string& bytes) {
    out_ += bytes;
    flush();
}

void Stream::flush() {
    while (!ended_ && unsent() > 0) {
        const ssize_t size = TEMP_FAILURE_RETRY(
            ::send(fd(), out_.data() + sent_, unsent(), MSG_NOSIGNAL | MSG_DONTWAIT));
        if (size == -1) {
            if (errno != EAGAIN) ended_ = true;
            if (!stalled_since_) stalled_since_ = now_ms();
            break;
        }
        sent_ += static_cast<std::size_t>(size);
        stalled_since_.reset();
    }
    if (unsent() == 0) stalled_since_.reset();
    // Moves the rest to the front at times, so that each byte is moved a bounded number of times.
    if (unsent() == 0 || sent_ > kUnsentLimit) {
        out_.erase(0, sent_);
        sent_ = 0;
    }
}

void Stream::tick(Millis now) {
    if (stalled_since_ && now >= *stalled_since_ + kStallLimit) ended_ = true;
}

std::optional<Millis> Stream::next_due() const {
    if (!stalled_since_ || ended_) return std::nullopt;
    return *stalled_since_ + kStallLimit;
}

}  // namespace jovusim::usbip
