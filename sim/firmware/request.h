/// @file
/// Reading a request of the message channel and checking it against the rules.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "firmware/commands.h"
#include "firmware/protocol_violations.h"
#include "firmware/types.h"

namespace jovusim {

/// A request that could be read far enough to be answered.
struct Request {
    std::uint32_t id = 0;
    bool response_wanted = true;
    Json idx;   ///< as it came, null if missing
    Json name;  ///< as it came, null if missing
    Json args;  ///< as it came, null if missing

    /// What to carry out; null for a request that breaks the rules of its command. Such a request
    /// is answered without a result.
    const Command* command = nullptr;
};

/// Reads the payload of a frame. Everything that differs from
///
///     {"transport":{"attrs":["request","twoway"],"id":N},
///      "data":{"command":{"idx":N,"name":"...","args":{...}}}}
///
/// is complained about: members, their order, types and ranges, blanks between them, an idx that is
/// not the one of the name, and every argument that breaks its rule.
/// @returns nothing when there is no command or no id to response under
std::optional<Request> read_request(const std::string& payload, ProtocolViolations& violations);

}  // namespace jovusim
