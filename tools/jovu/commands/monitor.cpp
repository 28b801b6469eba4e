// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu monitor`: one screen for all controllers.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "cli/failure.h"
#include "commands/command.h"
#include "monitor/model.h"
#include "monitor/requests.h"
#include "monitor/screen.h"
#include "monitor/view.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Number of notifications that are taken before keys are read again.
constexpr int kMaxNotificationsAtOnce = 1000;
/// How often the USB connection is started again at most.
constexpr auto kRestartInterval = 5s;

/// The USB connection and the requests over it.
struct MonitorLink {
    explicit MonitorLink(const Context& context)
        : session(context.options, context.stop, Interest{true, true}), requests(session) {}

    Session session;
    MonitorRequests requests;
};

class Monitor {
public:
    explicit Monitor(const Context& context) : context_(context), model_(context.options.device) {
        Client::set_device_filter(context.options.filter());
        link_.emplace(context);
        screen_.emplace(context.out);
    }

    /// Runs until the user quits.
    /// @throws Failure when the program is to end.
    void run() {
        while (!model_.has_quit()) {
            const Clock::time_point now = Clock::now();
            restart_if_ended(now);
            take_all(now);
            for (const MonitorRequest& request : model_.due(now)) {
                link_->requests.start(request);
            }
            screen_->draw(monitor_lines(model_, screen_->size(), now));
            Screen::wait_for_frame(context_.stop, now,
                                   {link_->session.notifications().fd(), link_->requests.fd()});
        }
    }

private:
    void restart_if_ended(Clock::time_point now) {
        if (!link_->session.has_ended() || now < next_restart_) {
            return;
        }
        next_restart_ = now + kRestartInterval;
        model_.restart(now);
        link_.reset();
        link_.emplace(context_);
    }

    void take_all(Clock::time_point now) {
        for (int i = 0; i < kMaxNotificationsAtOnce; ++i) {
            const std::optional<Notification> notification = link_->session.notifications().poll();
            if (!notification) {
                break;
            }
            model_.take(*notification, now);
        }
        for (const MonitorOutcome& outcome : link_->requests.take_outcomes()) {
            model_.take(outcome, now);
        }
        while (const std::optional<MonitorKey> key = screen_->read_key()) {
            model_.press(*key, now);
        }
    }

    const Context& context_;
    MonitorModel model_;
    std::optional<MonitorLink> link_;
    std::optional<Screen> screen_;  ///< Last: the terminal is restored before devices are closed.
    Clock::time_point next_restart_;
};

void run_monitor(const Context& context) {
    if (!context.out.redraws() || isatty(STDIN_FILENO) == 0) {
        throw Failure(ExitCode::usage,
                      "monitor needs a terminal as standard input and output, and no --json",
                      "'jovu status --watch --json' reports to programs");
    }
    if (const auto fleet = fleet_context(context)) {
        monitor_fleet(*fleet);
    } else {
        Monitor(context).run();
    }
}

Run define_monitor(CLI::App& app) {
    app.footer(
        "Shows all controllers, or the one that -d chooses, as they come and go: state,\n"
        "temperature of the last three minutes, job, last event. Keys: up and down choose a\n"
        "controller; p, r and a pause, resume and abort its job after a question; ? shows the\n"
        "help; q quits. Needs a terminal.");
    return run_monitor;
}

}  // namespace

const Command kMonitorCommand{"monitor", "Show all controllers on one screen", define_monitor,
                              FleetUse::works};

}  // namespace jovu_cli
