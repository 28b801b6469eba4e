/// @file
/// `jovu dfu`: the devices that wait for a new firmware.

#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "device_node.h"
#include "dfu_tool.h"
#include "failure.h"
#include "printable.h"
#include "session.h"

namespace jovu_cli {

void run_dfu(const Context& context) {
    DfuTool tool;
    const DfuListing listing = tool.list();
    for (const std::string& line : listing.refused) {
        print_error(
            "jovu: left out, as the names or the serial number of a device make it ambiguous: " +
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
            context.out.line(device.kind() + "  " + printable(device.place()) + "  serial " +
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
                      "'jovu update' puts a controller into it");
    }
}

}  // namespace jovu_cli
