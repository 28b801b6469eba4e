/// @file
/// `jovu call`: makes one call of any of the firmware's commands.

#include <nlohmann/json.hpp>
#include <string>

#include "call_arguments.h"
#include "commands.h"
#include "firmware_commands.h"
#include "session.h"
#include "session_lease.h"
#include "value_text.h"

namespace jovu_cli {

void run_call(const Context& context, const CallOptions& options) {
    const FirmwareCommand& command = firmware_command(options.name);
    const Json arguments = read_arguments(command, options.arguments);
    const SessionLease lease(context, Interest{});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const Json result = session.exchange(
        address, options.name, [&] { return command.call(session.client(), address, arguments); });
    if (context.out.json()) {
        context.out.object({{"device", to_string(address)},
                            {"command", command.name},
                            {"index", command.index},
                            {"result", result}});
        return;
    }
    if (command.result.kind == Kind::nothing) {
        context.out.line("done");
        return;
    }
    for (const std::string& line : value_lines(result)) {
        context.out.line(line);
    }
}

}  // namespace jovu_cli
