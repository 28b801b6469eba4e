// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu info`: the versions, serial number and model of a device.

#include <nlohmann/json.hpp>

#include "commands/command.h"
#include "session/reports.h"
#include "terminal/format.h"

namespace jovu_cli {

namespace {

void run_info(const Context& context) {
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const Identity identity = read_identity(session, address);
    const StatusReport report = session.request_status(address);
    if (context.out.json()) {
        context.out.object({{"device", to_string(address)},
                            {"version", identity.version},
                            {"serial", identity.serial},
                            {"printer", identity_json(report)}});
        return;
    }
    context.out.line(labelled("Device", to_string(address)));
    context.out.line(labelled("Version", identity.version));
    context.out.line(labelled("Serial", identity.serial));
    for (const std::string& line : identity_block(report)) {
        context.out.line(line);
    }
}

Run define_info(CLI::App& /*app*/) {
    return run_info;
}

}  // namespace

const Command kInfoCommand{"info", "Show the versions, serial number and model of a device",
                           define_info};

}  // namespace jovu_cli
