// SPDX-License-Identifier: Apache-2.0

/// @file
/// What dfu-util prints: listings and progress.
#include <cmath>
#include <cstdint>
#include <string>

#include "dfu/tool_output.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    for (const auto& device : jovu::listed_devices(text))
        REQUIRE(!device.vendor_id.empty() && !device.product_id.empty() && !device.serial.empty());
    constexpr std::size_t kPiece = 127;  // What the library reads at once.
    for (std::size_t at = 0; at < size; at += kPiece) {
        for (const double number : jovu::percentages(text.substr(at, kPiece)))
            REQUIRE(number >= 0 && std::isfinite(number));
    }
    return 0;
}
