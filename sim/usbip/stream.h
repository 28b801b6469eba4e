// SPDX-License-Identifier: Apache-2.0

/// @file
/// One connection, with bounded buffers.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "device/file_descriptor.h"
#include "firmware/base/types.h"

namespace jovusim::usbip {

/// A stream socket that never blocks. Reading pauses while much is unsent, so that a host which
/// does not read cannot make the output grow. Main thread.
class Stream {
public:
    /// Unsent bytes from which on nothing more is read.
    static constexpr std::size_t kUnsentLimit = 1U << 20U;

    /// How long a host may take nothing while something is unsent.
    static constexpr Millis kStallLimit = 30'000;

    explicit Stream(UniqueFd socket) : socket_(std::move(socket)) {}

    int fd() const { return socket_.get(); }

    /// The events to poll for.
    short events() const;

    /// Reads and writes what poll() has found possible.
    void serve(short events);

    /// Whether the connection can no longer be used: its other end has closed it, it has failed, or
    /// its host has taken nothing for kStallLimit.
    bool ended() const { return ended_; }

    /// Gives the connection up: what is unsent stays unsent.
    void end() { ended_ = true; }

    /// Bytes that have been received and not consumed.
    const std::string& received() const { return in_; }

    void consume(std::size_t size) { in_.erase(0, size); }

    /// Sends bytes, now or as soon as the host takes them.
    void send(const std::string& bytes);

    std::size_t unsent() const { return out_.size() - sent_; }

    /// Checks the time. Call it at next_due().
    void tick(Millis now);
    std::optional<Millis> next_due() const;

private:
    void flush();

    UniqueFd socket_;
    std::string in_;
    std::string out_;
    std::size_t sent_ = 0;  ///< part of out_ that has been sent
    std::optional<Millis> stalled_since_;
    bool ended_ = false;
};

}  // namespace jovusim::usbip
