// What dfu-util lists, and what hostile devices make of it.
#include "dfu_listing.h"

#include <gtest/gtest.h>

namespace {

TEST(DfuListing, KeepsDevicesApart) {
    const std::string found = "Found DFU: [7a1c:00df] ver=0100, devnum=9, ";
    const std::string one = found + "cfg=1, intf=0, path=\"1-2\", ";
    const std::string whole = one + "alt=0, name=\"a, b\", serial=\"A\"\n";
    const struct {
        std::string listing;
        std::size_t devices, refused;
    } cases[] = {
        {"dfu-util 0.11\n\nhello\n\n" + whole, 1, 0},
        {whole + one + "alt=1, name=\"c\", serial=\"A\"\n", 1, 0},
        {whole + whole, 1, 1},
        {whole + one + "alt=1, serial=\"B\"\n", 1, 1},
        {whole + "Found DFU: [1209:00df] devnum=9, path=\"1-2\", serial=\"A\"\n", 1, 1},
        {found + "path=\"1-2 -D x\", serial=\"A\"\n", 0, 1},
        {whole + found + "path=\"2-2\", serial=\"A\"\n", 2, 0},
        {whole + "Found DFU: [7a1c:00df] devnum=8, path=\"1-2\", serial=\"A\"\n", 2, 0},
        {whole + "Found Runtime: [1209:0001] name=\"3.5\" disk\", serial=\"A\"\n", 1, 0},
        {one + "serial=\"-\" serial=\"A\"\n", 0, 1},
        {one + "name=\"x\", serial=\"A\", serial=\"B\"\n", 0, 1},
        {one + "name=\"x\", serial=\"A\"\nx\", serial=\"B\"\n", 1, 1},
        {one + "serial=\"A\n", 0, 1},
        {one + "serial=A\x1b\n", 0, 1},
        {"Found DFU: [7a1c:00df] serial=\"A\"\n", 0, 1},
    };
    for (const auto& row : cases) {
        const jovu_cli::DfuListing listing = jovu_cli::parse_dfu_listing(row.listing);
        EXPECT_EQ(listing.devices.size(), row.devices) << row.listing;
        EXPECT_EQ(listing.refused.size(), row.refused) << row.listing;
    }
}

}  // namespace
