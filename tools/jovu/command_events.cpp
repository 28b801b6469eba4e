/// @file
/// `jovu events`: what a device reports of its own accord.

#include <chrono>
#include <optional>
#include <string>

#include "commands.h"
#include "event_text.h"
#include "session.h"
#include "session_lease.h"

namespace jovu_cli {
namespace {

void report_lost(Inbox& inbox) {
    const std::size_t lost = inbox.take_lost();
    if (lost > 0) {
        print_error("jovu: events lost, they come faster than they can be written: " +
                    std::to_string(lost));
    }
}

}  // namespace

void run_events(const Context& context, const EventOptions& options) {
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const auto end =
        options.limit ? Inbox::Clock::now() + *options.limit : Inbox::Clock::time_point::max();
    while (const std::optional<Notice> notice = session.next_notice(end)) {
        session.check_connected(address, *notice);
        if (notice->address == address) {
            print_event(context.out, *notice);
        }
        report_lost(session.inbox());
        if (Inbox::Clock::now() >= end) {
            break;  // Events that come without a pause would keep the wait from ever timing out.
        }
    }
    context.stop.throw_if_stopped();
}

}  // namespace jovu_cli
