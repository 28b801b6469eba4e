// SPDX-License-Identifier: Apache-2.0

/// @file
/// Parses the listing of dfu-util. A hostile device can insert lines into it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "jovu/dfu.h"

namespace jovu_cli {

using DfuDevice = JovuDfu::DfuDevice_t;

/// A device in DFU mode and its location on the bus.
struct ListedDevice {
    DfuDevice id;
    unsigned number = 0;  ///< Device number on its bus.
    std::string path;     ///< Bus and ports, as "1-2.3"; empty when dfu-util does not show it.

    /// "1-2.3", or "number 7".
    std::string location() const;
    /// Vendor and product id.
    std::string kind() const { return id.vendor_id + ":" + id.product_id; }
};

/// Whether two devices have the same location on the bus.
bool same_location(const ListedDevice& a, const ListedDevice& b);

/// Whether a string consists of letters and digits and is not empty.
bool is_word(std::string_view value);

/// The output of dfu-util.
struct DfuListing {
    std::vector<ListedDevice> devices;  ///< Each once, with any number of settings.
    std::vector<std::string> refused;   ///< Ambiguous lines.
    std::string diagnostics;            ///< The standard error of dfu-util.
};

/// Parses a listing.
///
/// dfu-util prints a device's names and serial number unescaped, so a quote or a line feed in them
/// can forge keys and lines. Vendor, product, number and path stand first on a line and are the
/// kernel's: lines with different numbers or paths are different devices. Refuses a line with a
/// stray quote or a repeated key, an unknown line between others, and a line that contradicts
/// another line of its location.
/// @param output the standard output of dfu-util. The diagnostics stay empty.
DfuListing parse_dfu_listing(std::string_view output);

}  // namespace jovu_cli
