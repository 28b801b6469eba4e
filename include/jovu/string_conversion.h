// SPDX-License-Identifier: Apache-2.0

/// @file
/// Strings as commands take and return them, and as C++ programs have them.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "jovu/exception.h"

/// Copies a string for a command or a structure that takes a `std::shared_ptr<char>`.
/// @return the copy, NUL-terminated.
/// @throws JovuException with JovuError::rejected when @p text has a zero byte, where the device
///     would take it to end; the message names its position, counted from 0.
inline std::shared_ptr<char> jovu_make_string(std::string_view text) {
    const std::size_t zero = text.find('\0');
    if (zero != std::string_view::npos) {
        throw JovuException(
            "String refused - zero byte at position " + std::to_string(zero) + ": remove it.",
            JovuError::rejected);
    }
    const auto owner = std::make_shared<std::string>(text);
    return {owner, owner->data()};
}

/// Copies a string that a command has returned.
/// @param text NUL-terminated; null, as a failed command returns it, reads as empty.
inline std::string jovu_read_string(const std::shared_ptr<char>& text) {
    return text == nullptr ? std::string() : std::string(text.get());
}

/// A string argument of a command: a `std::string_view`, or what converts to one, such as a
/// `std::string` or a literal. Made by the conversion to it, for the duration of the call.
class JovuStringArgument {
public:
    /// @param text what converts to `std::shared_ptr<char>` as well, such as `nullptr`, is left to
    ///     the overload that takes that.
    template <class Text,
              std::enable_if_t<std::is_convertible_v<const Text&, std::string_view> &&
                                   !std::is_convertible_v<const Text&, std::shared_ptr<char>>,
                               int> = 0>
    // NOLINTNEXTLINE(google-explicit-constructor): stands for the string.
    JovuStringArgument(const Text& text) {
        if constexpr (std::is_convertible_v<const Text&, const char*>) {
            // Without a null pointer's length, which a view would ask for.
            const char* const pointer = text;
            if (pointer != nullptr) view_ = pointer;
        } else {
            view_ = text;
            if (view_.data() == nullptr) view_ = "";
        }
    }

    /// @return the string; its data is null for a null pointer, which commands refuse.
    std::string_view view() const noexcept { return view_; }

private:
    std::string_view view_;
};
