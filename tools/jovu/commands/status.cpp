// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu status`: the state of a device and of its job, once or repeatedly.

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "session/reports.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

/// The shortest time between two reports: each is a request, which the device handles besides its
/// work.
constexpr std::chrono::milliseconds kMinInterval{100};

struct StatusOptions {
    bool watch = false;
    std::chrono::milliseconds interval{1000};
};

/// Draws a block of lines over the block before.
class RedrawnBlock {
public:
    explicit RedrawnBlock(Output& out) : out_(out) {}

    void draw(const std::vector<std::string>& lines) {
        const unsigned columns = out_.columns();
        std::string frame;
        if (drawn_ > 0) {
            frame = "\x1b[" + std::to_string(drawn_) + "A";
        }
        for (const std::string& line : lines) {
            // A wrapped line would shift the next block.
            frame += "\r\x1b[2K" + fit(printable(line), columns) + "\n";
        }
        out_.raw(frame);
        drawn_ = lines.size();
    }

private:
    Output& out_;
    std::size_t drawn_ = 0;
};

void watch(const Context& context, Session& session, JovuDeviceAddress address,
           std::chrono::milliseconds interval) {
    RedrawnBlock block(context.out);
    for (;;) {
        const auto next_time = NotificationQueue::Clock::now() + interval;
        const StatusReport report = session.request_status(address);
        if (context.out.json()) {
            context.out.object(to_json(address, report));
        } else if (context.out.redraws()) {
            block.draw(report_block(address, report));
        } else {
            context.out.line(report_line(address, report));
        }
        session.wait_until(address, next_time);
    }
}

void run_status(const Context& context, const StatusOptions& options) {
    if (const auto fleet = fleet_context(context)) {
        show_fleet_status(*fleet, options.watch ? std::optional(options.interval) : std::nullopt);
        return;
    }
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    if (options.watch) {
        watch(context, session, address, options.interval);
        return;
    }
    const StatusReport report = session.request_status(address);
    if (context.out.json()) {
        context.out.object(to_json(address, report));
        return;
    }
    for (const std::string& line : report_block(address, report)) {
        context.out.line(line);
    }
}

Run define_status(CLI::App& app) {
    const auto options = std::make_shared<StatusOptions>();
    CLI::Option* watch =
        app.add_flag("-w,--watch", options->watch, "Report repeatedly, until Ctrl-C");
    add_seconds_option(app, "--interval", options->interval,
                       "Time between two reports, 0.1 to 604800 [1]", kMinInterval)
        ->needs(watch);
    return [options](const Context& context) { run_status(context, *options); };
}

}  // namespace

const Command kStatusCommand{"status", "Show the state of a device and of its job", define_status,
                             FleetUse::works};

}  // namespace jovu_cli
