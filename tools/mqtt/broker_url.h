// SPDX-License-Identifier: Apache-2.0

/// @file
/// The URL of a broker, and the rule for connections that are not protected.
#pragma once

#include <cstdint>
#include <string>

namespace jovu_mqtt {

constexpr std::uint16_t kPlainPort = 1883;
constexpr std::uint16_t kTlsPort = 8883;

/// Where a broker listens.
struct BrokerUrl {
    bool tls = false;
    std::string host;  ///< A name or an address; IPv6 without brackets.
    std::uint16_t port = kPlainPort;
    /// The topic prefix: the path of the URL, without slashes at its ends. Empty when there is
    /// none.
    std::string prefix{};
};

/// Reads `mqtt://HOST[:PORT][/PREFIX]` or `mqtts://...`, with an IPv6 address in brackets. The
/// default ports are 1883 and 8883.
/// @throws Error with the reason, also for a URL that contains a user name.
BrokerUrl parse_broker_url(const std::string& url);

/// @return the URL with its port and without the prefix.
std::string to_string(const BrokerUrl& url);

/// @return whether the host is `localhost`, below 127.0.0.0/8, or ::1. Other names are never taken
///     for it, whatever they resolve to.
bool is_loopback(const BrokerUrl& url);

/// @return whether the host is an address rather than a name.
bool is_address(const std::string& host);

/// What protects a connection, and what the user permits.
struct Protection {
    bool authenticated = false;  ///< There is a user name or a client certificate.
    bool allow_plain_text = false;
    bool allow_anonymous = false;  ///< Concerns plain text only.
    /// @name How the user permits it, for the hint: "--fleet-plain-text", "allow_plain_text =
    /// true".
    /// @{
    std::string plain_text_setting{};
    std::string anonymous_setting{};
    /// @}
};

/// Checks a connection before it is made: plain text to another machine must be permitted, and
/// plain text without authentication once more.
/// @throws Error when it must not be made.
void check_protection(const BrokerUrl& url, const Protection& protection);

/// Reads a password from the first line of a file.
/// @throws Error when the file cannot be read, holds nothing, or other users than its owner and
///     its group may read it.
std::string read_password_file(const std::string& path);

}  // namespace jovu_mqtt
