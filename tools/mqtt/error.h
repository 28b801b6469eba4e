// SPDX-License-Identifier: Apache-2.0

/// @file
/// The exception for settings with which no connection to a broker can be made.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace jovu_mqtt {

/// A setting that cannot be used.
class Error : public std::runtime_error {
public:
    /// @param what "what happened: value", no final period.
    /// @param hint what the user can do about it; empty for none.
    explicit Error(const std::string& what, std::string hint = {})
        : std::runtime_error(what), hint_(std::move(hint)) {}

    const std::string& hint() const noexcept { return hint_; }

private:
    std::string hint_;
};

}  // namespace jovu_mqtt
