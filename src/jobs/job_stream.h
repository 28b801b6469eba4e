// SPDX-License-Identifier: Apache-2.0

/// @file
/// Cuts the byte stream of the job channel into JSON objects.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace jovu {

/// How much of one device's stream is kept: an object that is not complete by then, or a backlog
/// that the device never lets shrink, is dropped.
inline constexpr std::size_t kMaxJobBacklog = std::size_t{1} << 20U;

/// The receive buffer of one device. Objects are found by counting braces, and braces in strings
/// count as well.
///
/// The scan goes on where it stopped, and consumed text is moved out of the way only now and then,
/// so the work is linear in the bytes received.
class JobStream {
public:
    /// Takes bytes in, and at most one complete object out: bytes behind it wait for the next call,
    /// even if they hold a whole object already. A closing brace too many drops all up to itself,
    /// and nothing is taken out then.
    std::optional<std::string> append(const unsigned char* data, std::size_t size);

    /// Forgets everything.
    void clear() noexcept;

    /// Bytes that are waiting.
    std::size_t size() const noexcept { return buffer_.size() - begin_; }

private:
    void consume_to(std::size_t end);

    std::string buffer_;
    std::size_t begin_ = 0;    ///< What lies before has been consumed.
    std::size_t scanned_ = 0;  ///< What lies between begin_ and here has been counted.
    std::size_t opened_ = 0;
    std::size_t closed_ = 0;
};

}  // namespace jovu
