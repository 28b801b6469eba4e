/// @file
/// Why the calling thread's last exchange failed.
#pragma once

#include <string>
#include <string_view>

namespace jovu {

/// Remembers the reason for the calling thread; empty for "it did not fail". Cut to 255 bytes.
void set_last_send_error(std::string_view reason) noexcept;

std::string last_send_error();

}  // namespace jovu
