/// @file
/// `jovu pause` and `jovu abort`: requests about the job that a device is printing.

#include <string>

#include "command.h"
#include "report_text.h"
#include "session.h"

namespace jovu_cli {
namespace {

/// Sends the request, which is not answered, and shows the state that the device is in then.
void run(const Context& context, const char* name, void (Client::*request)(JovuDeviceAddress)) {
    Session session(context.options, context.stop, Interest{true, false});
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

Run define_pause(CLI::App& app) {
    app.footer("A second pause lets the job go on. Shows the state that the device is in then.");
    return [](const Context& context) { run(context, "pause", &Client::SendPause); };
}

Run define_abort(CLI::App& app) {
    app.footer("Shows the state that the device is in then.");
    return [](const Context& context) { run(context, "abort", &Client::SendAbort); };
}

}  // namespace jovu_cli
