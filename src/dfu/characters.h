// SPDX-License-Identifier: Apache-2.0

/// @file
/// Classes of characters, whatever the locale.
#pragma once

namespace jovu {

constexpr bool is_space(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool is_digit(char c) noexcept {
    return c >= '0' && c <= '9';
}

constexpr bool is_alphanumeric(char c) noexcept {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace jovu
