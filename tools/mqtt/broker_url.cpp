// SPDX-License-Identifier: Apache-2.0
#include "mqtt/broker_url.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>

#include "mqtt/error.h"
#include "mqtt/topics.h"
#include "posix/files.h"

namespace jovu_mqtt {
namespace {

constexpr std::string_view kForm = "a broker URL is mqtt://HOST[:PORT][/PREFIX] or mqtts://...";
constexpr std::size_t kMaxPassword = 65535;  ///< What the protocol can carry.

[[noreturn]] void refuse(const std::string& url, const std::string& reason) {
    throw Error("invalid broker URL '" + url + "': " + reason, std::string(kForm));
}

/// Removes and returns what is before the first of the given characters.
std::string_view take_until(std::string_view& rest, std::string_view characters) {
    const std::string_view head = rest.substr(0, rest.find_first_of(characters));
    rest.remove_prefix(head.size());
    return head;
}

std::uint16_t parse_port(const std::string& url, std::string_view digits) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), port);
    if (error != std::errc() || end != digits.end() || port == 0) {
        refuse(url, "the port '" + std::string(digits) + "' is not a number from 1 to 65535");
    }
    return port;
}

bool is_ipv6(const std::string& host) {
    in6_addr address{};
    return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

void check_host(const std::string& url, const std::string& host, bool bracketed) {
    if (host.empty()) {
        refuse(url, "the host is missing");
    }
    if (bracketed != is_ipv6(host)) {
        refuse(url, bracketed ? "'" + host + "' in brackets is not an IPv6 address"
                              : "an IPv6 address stands in brackets");
    }
    for (const char character : host) {
        if (static_cast<unsigned char>(character) <= ' ' || character == '\x7f') {
            refuse(url, "the host contains a blank or a control character");
        }
    }
}

}  // namespace

BrokerUrl parse_broker_url(const std::string& url) {
    BrokerUrl result;
    std::string_view rest = url;
    const std::string_view scheme = take_until(rest, ":");
    if (scheme == "mqtts") {
        result.tls = true;
        result.port = kTlsPort;
    } else if (scheme != "mqtt") {
        refuse(url, "it does not begin with mqtt:// or mqtts://");
    }
    if (rest.substr(0, 3) != "://") {
        refuse(url, "'//' is missing");
    }
    rest.remove_prefix(3);
    if (rest.substr(0, rest.find('/')).find('@') != std::string_view::npos) {
        // The URL is not repeated: what is before the '@' may be a password.
        throw Error("a broker URL must not contain a user name or a password",
                    "the user is a setting of its own, and the password is read from a file");
    }
    const bool bracketed = !rest.empty() && rest.front() == '[';
    if (bracketed) {
        rest.remove_prefix(1);
        result.host = take_until(rest, "]");
        if (rest.empty()) {
            refuse(url, "']' is missing");
        }
        rest.remove_prefix(1);
    } else {
        result.host = take_until(rest, ":/?#");
    }
    if (!rest.empty() && rest.front() == ':') {
        rest.remove_prefix(1);
        const std::string_view port = take_until(rest, "/");
        if (!bracketed && port.find(':') != std::string_view::npos) {
            refuse(url, "an IPv6 address stands in brackets");
        }
        result.port = parse_port(url, port);
    }
    check_host(url, result.host, bracketed);
    if (!rest.empty() && rest.front() != '/') {
        refuse(url, "'" + std::string(rest) + "' after the host is neither a port nor a prefix");
    }
    while (!rest.empty() && rest.front() == '/') {
        rest.remove_prefix(1);
    }
    while (!rest.empty() && rest.back() == '/') {
        rest.remove_suffix(1);
    }
    result.prefix = rest;
    static_cast<void>(Topics(result.prefix));  // Throws for a prefix that cannot be used.
    return result;
}

std::string to_string(const BrokerUrl& url) {
    const bool brackets = url.host.find(':') != std::string::npos;
    return (url.tls ? "mqtts://" : "mqtt://") + (brackets ? "[" + url.host + "]" : url.host) + ":" +
           std::to_string(url.port);
}

bool is_address(const std::string& host) {
    in_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 || is_ipv6(host);
}

bool is_loopback(const BrokerUrl& url) {
    in_addr four{};
    if (inet_pton(AF_INET, url.host.c_str(), &four) == 1) {
        return ntohl(four.s_addr) >> 24U == 127;
    }
    in6_addr six{};
    if (inet_pton(AF_INET6, url.host.c_str(), &six) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
    }
    return url.host == "localhost";
}

void check_protection(const BrokerUrl& url, const Protection& protection) {
    if (url.tls || is_loopback(url)) {
        return;
    }
    if (!protection.allow_plain_text) {
        throw Error("the connection to " + to_string(url) + " would not be encrypted",
                    "use an mqtts:// URL, or permit it by " + protection.plain_text_setting);
    }
    if (!protection.authenticated && !protection.allow_anonymous) {
        throw Error(
            "the connection to " + to_string(url) + " would be neither encrypted nor authenticated",
            "give a user and a password file" +
                (protection.anonymous_setting.empty()
                     ? ""
                     : ", or permit it by " + protection.anonymous_setting));
    }
}

std::string read_password_file(const std::string& path) {
    const auto fail = [&path](const std::string& reason, const std::string& hint = {}) {
        throw Error("cannot read the password file '" + path + "': " + reason, hint);
    };
    // A pipe without a writer must not block.
    const jovu_cli::FileDescriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // NOLINT(*-vararg)
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        fail(std::system_category().message(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        fail("it is not a regular file");
    }
    if ((status.st_mode & S_IRWXO) != 0) {
        fail("every user of this computer may read or change it", "chmod o= '" + path + "'");
    }
    std::string bytes(kMaxPassword + 2, '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t got = read(file.get(), bytes.data() + length, bytes.size() - length);
        if (got < 0) {
            fail(std::system_category().message(errno));
        }
        if (got == 0) {
            break;
        }
        length += static_cast<std::size_t>(got);
    }
    bytes.resize(length);
    bytes.resize(std::min(bytes.find_first_of("\r\n"), bytes.size()));
    if (bytes.empty()) {
        fail("its first line is empty");
    }
    if (bytes.size() > kMaxPassword || bytes.find('\0') != std::string::npos) {
        fail("its first line is too long for a password, or contains a zero byte");
    }
    return bytes;
}

}  // namespace jovu_mqtt
