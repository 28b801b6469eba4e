/// @file
/// Fixed arrays of bytes as people write them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace jovu_cli {

/// Bytes as a text that parse_bytes() reads: six of them as a hardware address in hexadecimal
/// digits ("02:4a:00:00:00:01"), any other number as decimals with dots ("192.168.1.7").
std::string bytes_text(const unsigned char* bytes, std::size_t size);

/// The text in an array that is padded with NULs, or that it fills.
std::string padded_text(const unsigned char* bytes, std::size_t size);

/// Reads decimals with dots or commas, or hexadecimals with colons.
/// @return as many bytes as the text has parts; nothing when a part is no byte.
std::optional<std::vector<unsigned char>> parse_bytes(const std::string& text);

}  // namespace jovu_cli
