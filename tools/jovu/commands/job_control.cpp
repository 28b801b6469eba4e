// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu pause`, `jovu resume` and `jovu abort`: requests about the job of a device.

#include <CLI/CLI.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "cli/failure.h"
#include "commands/command.h"
#include "session/device_names.h"
#include "session/reports.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

/// How long a device may take to show the requested state.
constexpr auto kStateLimit = 2s;
constexpr auto kStatePoll = 200ms;

/// One request about a device's job.
class JobControl {
public:
    /// @param name of the command, for the output.
    JobControl(const Context& context, const char* name)
        : context_(context), name_(name), lease_(context, Interest{true, false}) {}

    void abort() { request(&Client::SendAbort, std::nullopt); }

    /// Pauses or resumes the job. One request toggles both, so it is sent only when the state
    /// differs.
    /// @param wanted the state to reach: paused or active.
    void change_to(JobPhase wanted) {
        const StatusReport report = session_.request_status(address_);
        const JobPhase phase = state_phase(report.state);
        if (phase == wanted) {
            show(report, false);
            return;
        }
        if (phase != JobPhase::paused && phase != JobPhase::active) {
            throw Failure(ExitCode::device_refused,
                          std::string("no job to ") + name_ + ": " + device_name(address_) +
                              " reports the state " + state_string(report),
                          "nothing was sent");
        }
        request(&Client::SendPause, wanted);
    }

private:
    /// Sends the request, which has no response, and shows the state after it.
    /// @param wanted the state to reach; nothing for any.
    void request(void (Client::*call)(JovuDeviceAddress), std::optional<JobPhase> wanted) {
        session_.send(address_, name_, [&] { (session_.client().*call)(address_); });
        const auto deadline = NotificationQueue::Clock::now() + kStateLimit;
        StatusReport report = session_.request_status(address_);
        const auto is_wanted = [&] { return !wanted || state_phase(report.state) == *wanted; };
        while (!is_wanted() && NotificationQueue::Clock::now() < deadline) {
            session_.wait_until(address_, NotificationQueue::Clock::now() + kStatePoll);
            report = session_.request_status(address_);
        }
        show(report, true);
        if (!is_wanted()) {
            throw Failure(ExitCode::device_refused,
                          std::string(name_) + " was sent, but " + device_name(address_) +
                              " reports the state " + state_string(report));
        }
    }

    void show(const StatusReport& report, bool sent) {
        if (context_.out.json()) {
            Json object = {{"request", name_}, {"sent", sent}};
            object.update(to_json(address_, report));
            context_.out.object(object);
            return;
        }
        context_.out.line(report_line(address_, report) +
                          (sent ? "" : "  (unchanged: nothing was sent)"));
    }

    const Context& context_;
    const char* const name_;
    const SessionLease lease_;
    Session& session_ = lease_.session();
    const JovuDeviceAddress address_ = session_.pick_device();
};

void run_pause(const Context& context) {
    if (const auto fleet = fleet_context(context)) {
        control_fleet_jobs(*fleet, "pause");
    } else {
        JobControl(context, "pause").change_to(JobPhase::paused);
    }
}

void run_resume(const Context& context) {
    if (const auto fleet = fleet_context(context)) {
        control_fleet_jobs(*fleet, "resume");
    } else {
        JobControl(context, "resume").change_to(JobPhase::active);
    }
}

void run_abort(const Context& context) {
    if (const auto fleet = fleet_context(context)) {
        control_fleet_jobs(*fleet, "abort");
    } else {
        JobControl(context, "abort").abort();
    }
}

Run define_pause(CLI::App& app) {
    app.footer(
        "Shows the state of the device after the request. A paused job stays paused. Without a\n"
        "job the exit code is 6.");
    return run_pause;
}

Run define_resume(CLI::App& app) {
    app.footer(
        "Shows the state of the device after the request. A running job continues. Without a job\n"
        "the exit code is 6.");
    return run_resume;
}

Run define_abort(CLI::App& app) {
    app.footer("Shows the state of the device after the request.");
    return run_abort;
}

}  // namespace

const Command kPauseCommand{"pause", "Pause the print job", define_pause, FleetUse::works};
const Command kResumeCommand{"resume", "Resume the paused print job", define_resume,
                             FleetUse::works};
const Command kAbortCommand{"abort", "Abort the print job", define_abort, FleetUse::works};

}  // namespace jovu_cli
