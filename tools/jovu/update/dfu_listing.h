/// @file
/// Reads the listing of dfu-util, which a hostile device may have tampered with.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "jovu/dfu.h"

namespace jovu_cli {

using DfuDevice = JovuDfu::DfuDevice_t;

/// A device in DFU mode and its place on the bus.
struct ListedDevice {
    DfuDevice id;
    unsigned number = 0;  ///< Device number on its bus.
    std::string path;     ///< Bus and ports, as "1-2.3"; empty when dfu-util does not show it.

    /// "1-2.3", or "number 7".
    std::string location() const;
    /// Vendor and product id.
    std::string kind() const { return id.vendor_id + ":" + id.product_id; }
};

/// Whether two lines are about one place on the bus.
bool same_location(const ListedDevice& a, const ListedDevice& b);

/// Whether a text is of letters and digits, and not empty.
bool is_word(std::string_view text);

/// What dfu-util lists.
struct DfuListing {
    std::vector<ListedDevice> devices;  ///< Each once, whatever number of settings it has.
    std::vector<std::string> refused;   ///< Lines that cannot be read in one way only.
    std::string diagnostics;            ///< What dfu-util prints on standard error.
};

/// Reads a listing.
///
/// dfu-util prints a device's names and serial number as they are, so a quote or a line feed in
/// them can make one line look like another, or like two. Vendor, product, number and path come
/// first on a line and are the kernel's. So lines of different numbers or paths are different
/// devices, whatever else is the same. Refused are a line with a stray quote or a repeated key, one
/// between others that is none of dfu-util's, and one that contradicts another line for its place.
/// @param output all of its standard output. The diagnostics stay empty.
DfuListing parse_dfu_listing(std::string_view output);

}  // namespace jovu_cli
