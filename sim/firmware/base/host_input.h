// SPDX-License-Identifier: Apache-2.0

/// @file
/// Input from the host: its JSON, and the record of its protocol violations.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "firmware/base/types.h"

namespace jovusim {

/// Records the protocol violations of the host. The firmware model has no output: its owner takes
/// the sentences and prints them.
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

/// Makes a string from the host fit for one line of a log: bytes outside printable ASCII become
/// "\xNN", and at most 120 characters are kept.
std::string excerpt(const std::string& text);

/// Parses JSON. The result is_discarded() when the string is not JSON or is nested too deeply:
/// trees are copied and printed by recursion, and the host is not trusted.
Json parse_json(const std::string& text);

/// Whether JSON has blanks or line breaks outside its strings.
bool has_blanks(const std::string& text);

/// Whether a value is an object with these members, in this order.
bool has_members(const Json& object, std::initializer_list<const char*> keys);

}  // namespace jovusim
