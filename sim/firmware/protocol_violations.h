/// @file
/// What the firmware model has to say about the host's manners.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "firmware/types.h"

namespace jovusim {

/// Collects sentences about every byte of the host that differs from the rules. The model has no
/// output of its own: its owner takes the sentences and prints them.
class ProtocolViolations {
public:
    void add(std::string sentence);

    /// The sentences added since the last call.
    std::vector<std::string> take();

    /// {"count": all, "last": [the newest few]}
    Json stats() const;

    std::uint64_t count() const { return count_; }

private:
    std::uint64_t count_ = 0;
    std::vector<std::string> pending_;
    std::deque<std::string> last_;
};

/// The start of a text that came from outside, fit for one line of a log: bytes outside printable
/// ASCII become "\xNN", and at most 120 characters are kept.
std::string excerpt(const std::string& text);

}  // namespace jovusim
