// SPDX-License-Identifier: Apache-2.0

/// @file
/// The names of the topics that bridges and their users share.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace jovu_mqtt {

constexpr std::string_view kDefaultPrefix = "jovu";

/// @return the name as one level of a topic: each byte that is not alphanumeric in ASCII, '.', '_'
///     or '-' is percent-encoded.
std::string encode_level(std::string_view name);

/// @return the name of a level that encode_level() made; nothing for any other string.
std::optional<std::string> decode_level(std::string_view level);

/// @return what stands for the serial number of a controller without one: "port-1-2.3".
std::string name_of_port(std::string_view port);

/// A topic below P/devices/S.
struct DeviceTopic {
    std::string serial;  ///< Decoded.
    std::string leaf;    ///< "status", "request/call/NAME".
};

/// Builds and reads the topics below one prefix.
class Topics {
public:
    /// @param prefix one or more levels; empty for kDefaultPrefix.
    /// @throws Error for a prefix with a wildcard, an empty level or a leading '$'.
    explicit Topics(std::string prefix = {});

    const std::string& prefix() const noexcept { return prefix_; }

    /// @return P/bridges/B.
    std::string bridge(std::string_view name) const;
    /// @param leaf "availability", "identity", "status", "job", "event" or "trace".
    /// @return P/devices/S/LEAF.
    std::string device(std::string_view serial, std::string_view leaf) const;
    /// @param operation "gcode", "pause", "call/NAME", ...
    /// @return P/devices/S/request/OPERATION.
    std::string request(std::string_view serial, std::string_view operation) const;
    /// @param client of one requester; encoded as a level.
    /// @return P/responses/CLIENT, where the requesters of this project let bridges respond.
    std::string responses(std::string_view client) const;

    /// @name Filters for subscriptions
    /// @{
    std::string all_bridges() const;                          ///< P/bridges/+
    std::string all_devices(std::string_view leaf) const;     ///< P/devices/+/LEAF
    std::string all_requests(std::string_view serial) const;  ///< P/devices/S/request/#
    /// @}

    /// @return the bridge's name; nothing for a topic that is not P/bridges/B.
    std::optional<std::string> parse_bridge(std::string_view topic) const;
    /// @return nothing for a topic that is not below P/devices/S.
    std::optional<DeviceTopic> parse_device(std::string_view topic) const;

    /// Checks the topic to which a requester wants a response.
    /// @return why it must not be used; empty when it may.
    std::string refuse_response_topic(std::string_view topic) const;

private:
    std::string prefix_;
};

/// @return whether a string matches a pattern in which '*' stands for any characters and '?' for
///     one.
bool matches_glob(std::string_view pattern, std::string_view name);

}  // namespace jovu_mqtt
