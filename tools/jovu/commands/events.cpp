// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu events`: the events that a device reports.

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "commands/command.h"
#include "session/reports.h"

namespace jovu_cli {
namespace {

struct EventOptions {
    std::optional<std::chrono::milliseconds> limit;
};

void run_events(const Context& context, const EventOptions& options) {
    if (const auto fleet = fleet_context(context)) {
        print_fleet_events(*fleet, options.limit);
        return;
    }
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const auto end = options.limit ? NotificationQueue::Clock::now() + *options.limit
                                   : NotificationQueue::Clock::time_point::max();
    while (const std::optional<Notification> notification = session.next_notification(end)) {
        session.check_connected(address, *notification);
        if (notification->address == address) {
            print_event(context.out, *notification);
        }
        print_lost_events(session.notifications().take_lost());
        if (NotificationQueue::Clock::now() >= end) {
            break;  // Without a pause between events the wait never times out.
        }
    }
    context.stop.throw_if_stopped();
}

Run define_events(CLI::App& app) {
    const auto options = std::make_shared<EventOptions>();
    app.footer("Prints debug messages and servo trace samples as they arrive, until Ctrl-C.");
    add_seconds_option(app, "--seconds", options->limit, "Stop after this time, 0 to 604800");
    return [options](const Context& context) { run_events(context, *options); };
}

}  // namespace

const Command kEventsCommand{"events", "Print the events that a device reports", define_events,
                             FleetUse::works};

}  // namespace jovu_cli
