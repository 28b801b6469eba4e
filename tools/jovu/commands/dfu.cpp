// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu dfu`: the devices in DFU mode.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/failure.h"
#include "commands/command.h"
#include "session/attached_devices.h"
#include "terminal/printable.h"
#include "update/dfu_tool.h"

namespace jovu_cli {

namespace {

void run_dfu(const Context& context) {
    DfuTool tool;
    const DfuListing listing = tool.list();
    for (const std::string& line : listing.refused) {
        print_error(
            "jovu: omitted, as the names or the serial number of a device make it ambiguous: " +
            printable(line));
    }
    if (context.out.json()) {
        Json devices = Json::array();
        for (const ListedDevice& device : listing.devices) {
            devices.push_back({{"vendor_id", device.id.vendor_id},
                               {"product_id", device.id.product_id},
                               {"number", device.number},
                               {"path", device.path},
                               {"serial", device.id.serial}});
        }
        context.out.object({{"devices", std::move(devices)}});
    } else {
        for (const ListedDevice& device : listing.devices) {
            context.out.line(device.kind() + "  " + printable(device.location()) + "  serial " +
                             printable(device.id.serial));
        }
    }
    if (const auto node = refused_node(listing.diagnostics)) {
        throw Failure(ExitCode::no_device, "no permission on " + *node, permission_hint());
    }
    if (listing.devices.empty()) {
        throw Failure(ExitCode::no_device,
                      "no device is in DFU mode" +
                          (listing.diagnostics.empty() ? "" : ": " + listing.diagnostics),
                      "'jovu update' puts a controller into DFU mode");
    }
}

Run define_dfu(CLI::App& app) {
    app.footer("Needs dfu-util.");
    return run_dfu;
}

}  // namespace

const Command kDfuCommand{"dfu", "List the devices in DFU mode", define_dfu};

}  // namespace jovu_cli
