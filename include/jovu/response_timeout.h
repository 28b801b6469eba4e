// SPDX-License-Identifier: Apache-2.0

/// @file
/// How long commands wait for their response.
#pragma once

#include <chrono>

#include "jovu/export.h"

/// While an object of this class lives, the exchanges that its thread makes, through any client,
/// wait that long for their response:
///
///     {
///         const JovuResponseTimeout brief(std::chrono::milliseconds(200));
///         client.bio_get_version(address);
///     }
///
/// The time begins when the request has been sent. Waiting for the exchanges that other threads
/// make with the device comes before it. Objects may be nested: the innermost one counts, and takes
/// precedence over JovuTransport::set_response_timeout().
///
/// Threads: constructed and destroyed on the same thread, in the reverse order.
class JOVU_API JovuResponseTimeout {
public:
    /// @param limit 10 ms to 24 h.
    /// @throws JovuException with JovuError::rejected when it is not; its message names the value.
    explicit JovuResponseTimeout(std::chrono::milliseconds limit);
    /// Restores the limit that was in force before.
    ~JovuResponseTimeout();
    JovuResponseTimeout(const JovuResponseTimeout&) = delete;
    JovuResponseTimeout& operator=(const JovuResponseTimeout&) = delete;

private:
    const std::chrono::milliseconds outer_;
};
