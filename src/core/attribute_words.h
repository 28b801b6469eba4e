/// @file
/// The words that stand for message attributes in an envelope.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "core/message.h"

namespace jovu {

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
