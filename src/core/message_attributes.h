// SPDX-License-Identifier: Apache-2.0

/// @file
/// The attributes of a message, and their names in an envelope.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace jovu {

/// Message attributes, as bits.
enum MessageAttribute : std::uint32_t {
    kRequest = 1,   ///< Originates an exchange.
    kResponse = 2,  ///< Answers a request, matched by id.
    kOneway = 4,    ///< The sender expects no response.
    kTwoway = 8,    ///< The sender waits for a response.
    kAck = 16,      ///< Carried, but without meaning to the library.
};

inline constexpr unsigned kCommandFlags = kRequest | kTwoway;
inline constexpr unsigned kEventFlags = kRequest | kOneway;

struct AttributeWord {
    std::uint32_t bit;
    const char* word;
};

/// In the order in which they are written, which is not that of the bits: "twoway" comes first.
inline constexpr std::array<AttributeWord, 5> kAttributeWords{{
    {kRequest, "request"},
    {kResponse, "response"},
    {kTwoway, "twoway"},
    {kOneway, "oneway"},
    {kAck, "ack"},
}};

/// @return the bit of a word, 0 for any other word.
constexpr std::uint32_t attribute_bit(std::string_view word) noexcept {
    for (const AttributeWord& attribute : kAttributeWords) {
        if (word == attribute.word) return attribute.bit;
    }
    return 0;
}

}  // namespace jovu
