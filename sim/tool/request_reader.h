/// @file
/// Reading the words of a control request.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "bus/types.h"
#include "firmware/base/types.h"

namespace jovusim {

/// A request that cannot be carried out; what() is the text behind "error ".
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Takes a request apart, word by word. Every member throws BadRequest naming the value that it
/// cannot read, or what is missing.
class RequestReader {
public:
    explicit RequestReader(std::string line) : line_(std::move(line)) {}

    /// The next word. @param what names it in the error when there is none
    std::string next(const char* what);

    /// The next word, or nothing at the end.
    std::optional<std::string> next_if_any();

    /// Everything that is left, without the blank in front.
    std::string rest();

    /// There must be nothing left.
    void expect_end();

    BusAddress address();
    std::uint64_t number(const char* what, std::uint64_t least, std::uint64_t most);

    /// A count: a number from 1 on, or "always". @param fallback taken at the end of the line
    std::uint32_t count(std::uint32_t fallback);

    /// A number that may be left out. @param fallback taken at the end of the line
    std::uint32_t optional_number(const char* what, std::uint32_t fallback);

    /// An errno by its name, as "EPIPE".
    int error_name();

    /// An endpoint's address in hexadecimal, as "81" or "02".
    std::uint8_t endpoint();

    Channel channel();

private:
    std::string line_;
    std::size_t at_ = 0;
};

/// "1:2"
BusAddress parse_address(const std::string& word);

/// Four hexadecimal digits or fewer.
std::uint16_t parse_hex_word(const std::string& word);

/// A text for a USB string descriptor, in which %XX stands for the byte XX.
std::string parse_string(const std::string& word);

/// Likewise a serial number, which must be printable: responses of one line show it.
std::string parse_serial(const std::string& word);

/// Bytes from pairs of hexadecimal digits.
std::string parse_hex_bytes(const std::string& word);

}  // namespace jovusim
