/// @file
/// `jovu dfu`: the devices that wait for a new firmware.

#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "dfu_tool.h"
#include "failure.h"
#include "printable.h"
#include "session.h"

namespace jovu_cli {

void run_dfu(const Context& context) {
    DfuTool tool;
    const DfuTool::Listing listing = tool.list();
    if (context.out.json()) {
        Json devices = Json::array();
        for (const DfuDevice& device : listing.devices) {
            devices.push_back({{"vendor_id", device.vendor_id},
                               {"product_id", device.product_id},
                               {"serial", device.serial}});
        }
        context.out.object({{"devices", std::move(devices)}});
    } else {
        for (const DfuDevice& device : listing.devices) {
            context.out.line(device.vendor_id + ":" + device.product_id + "  serial " +
                             printable(device.serial));
        }
    }
    if (const auto node = refused_node(listing.words)) {
        throw Failure(ExitCode::no_device, "no permission on " + *node, permission_hint());
    }
    if (listing.devices.empty()) {
        throw Failure(
            ExitCode::no_device,
            "no device is in DFU mode" + (listing.words.empty() ? "" : ": " + listing.words),
            "'jovu update' puts a controller into it");
    }
}

}  // namespace jovu_cli
