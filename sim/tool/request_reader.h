// SPDX-License-Identifier: Apache-2.0

/// @file
/// Parsing control requests.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "firmware/base/types.h"

namespace jovusim {

/// An invalid request; what() is the string after "error ".
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads a request word by word. Every member throws BadRequest, which names the invalid value or
/// what is missing.
class RequestReader {
public:
    explicit RequestReader(std::string line) : line_(std::move(line)) {}

    /// The next word. @param what its name in the error when it is missing
    std::string next(const char* what);

    /// The next word, or nothing at the end.
    std::optional<std::string> next_if_any();

    /// The rest of the line, without the leading blank.
    std::string rest();

    /// Throws when words are left.
    void expect_end();

    std::uint64_t number(const char* what, std::uint64_t least, std::uint64_t most);

    /// A number of at least 1, or "always". @param fallback returned at the end of the line
    std::uint32_t count(std::uint32_t fallback);

    /// An optional number. @param fallback returned at the end of the line
    std::uint32_t optional_number(const char* what, std::uint32_t fallback);

    /// The errno of a name such as "EPIPE".
    int error_name();

    /// An endpoint address in hexadecimal, as "81" or "02".
    std::uint8_t endpoint();

    Channel channel();

private:
    std::string line_;
    std::size_t at_ = 0;
};

/// Four hexadecimal digits or fewer.
std::uint16_t parse_hex_word(const std::string& word);

/// A string for a USB string descriptor, in which %XX is the byte XX.
std::string parse_string(const std::string& word);

/// Likewise a serial number, which must be printable because responses contain it.
std::string parse_serial(const std::string& word);

/// Bytes from pairs of hexadecimal digits.
std::string parse_hex_bytes(const std::string& word);

}  // namespace jovusim
