/// @file
/// `jovu pause` and `jovu abort`: requests about the job that a device is printing.

#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "report_text.h"
#include "session.h"
#include "session_lease.h"

namespace jovu_cli {
namespace {

/// Sends the request, which is not answered, and shows the state that the device is in then.
void run(const Context& context, const char* name, void (Client::*request)(JovuDeviceAddress)) {
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    session.send(address, name, [&] { (session.client().*request)(address); });
    const StatusReport report = session.request_status(address);
    if (context.out.json()) {
        Json object = {{"request", name}};
        object.update(to_json(address, report));
        context.out.object(object);
    } else {
        context.out.line(report_line(address, report));
    }
}

}  // namespace

void run_pause(const Context& context) {
    run(context, "pause", &Client::SendPause);
}

void run_abort(const Context& context) {
    run(context, "abort", &Client::SendAbort);
}

}  // namespace jovu_cli
