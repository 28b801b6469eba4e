// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu wait`: waits for a device, a state or a temperature, for scripts.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "commands/command.h"
#include "session/reports.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using Clock = NotificationQueue::Clock;

constexpr auto kPoll = 500ms;
/// Degrees; a control loop need not reach its target exactly.
constexpr double kTolerance = 1;

struct WaitOptions {
    std::string what;   ///< "device", "state" or "temperature".
    std::string value;  ///< The state or the temperature.
    double degrees = 0;
};

/// @throws Failure timed_out, also when the device has not responded until then.
StatusReport request_report(Session& session, JovuDeviceAddress address, const std::string& goal,
                            Clock::time_point deadline, const std::optional<StatusReport>& last) {
    const auto time_out = [&] {
        const std::string seen =
            last ? report_line(address, *last) : to_string(address) + " has sent no status report";
        return Failure(ExitCode::timed_out, "timed out waiting for " + goal + ": " + seen);
    };
    if (last && Clock::now() >= deadline) {
        throw time_out();
    }
    try {
        return session.request_status(address, deadline);
    } catch (const Failure& failure) {
        if (failure.code() == ExitCode::exchange_failed && Clock::now() >= deadline &&
            session.is_connected(address)) {
            throw time_out();
        }
        throw;
    }
}

void wait_report(const Context& context, const WaitOptions& options, Clock::time_point deadline) {
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const bool for_state = options.what == "state";
    const std::string goal = "the " + options.what + " " + options.value;
    std::optional<double> first;
    std::optional<StatusReport> last;
    for (;;) {
        last = request_report(session, address, goal, deadline, last);
        const double degrees = last->extruder_temperature;
        first = first.value_or(degrees);
        const bool crossed = (*first < options.degrees) != (degrees < options.degrees);
        const bool reached = crossed || std::abs(degrees - options.degrees) <= kTolerance;
        if (for_state ? lower_case(last->state) == lower_case(options.value) : reached) {
            break;
        }
        if (job_phase(*last) == JobPhase::error) {
            throw Failure(ExitCode::device_refused, to_string(address) + " does not reach " + goal +
                                                        ": " + describe_error(*last));
        }
        session.wait_until(address, std::min(Clock::now() + kPoll, deadline));
    }
    if (context.out.json()) {
        context.out.object(to_json(address, *last));
    } else {
        context.out.line(report_line(address, *last));
    }
}

void wait_device(const Context& context, Clock::time_point deadline) {
    const SessionLease lease(context, Interest{});
    Session& session = lease.session();
    const std::vector<JovuDeviceAddress> devices = session.find_devices();
    if (devices.empty()) {
        try {
            session.throw_no_device();
        } catch (const Failure& failure) {
            const bool late = failure.code() == ExitCode::no_device && Clock::now() >= deadline;
            throw Failure(
                late ? ExitCode::timed_out : failure.code(),
                (late ? "timed out waiting for a device: " : "") + std::string(failure.what()),
                failure.hint());
        }
    }
    for (const JovuDeviceAddress address : devices) {
        if (context.out.json()) {
            context.out.object({{"device", to_string(address)}});
        } else {
            context.out.line("connected: " + to_string(address));
        }
    }
}

void run_wait(const Context& context, const WaitOptions& options) {
    CommonOptions common = context.options;
    const auto limit = common.timeout.value_or(std::chrono::seconds(kMaxSeconds));
    // For the whole command, not for each response.
    common.timeout.reset();
    if (options.what == "device") {
        common.wait_device = limit;
    }
    const Context changed{common, context.out, context.stop, context.session, context.read_line};
    const Clock::time_point deadline = Clock::now() + limit;
    options.what == "device" ? wait_device(changed, deadline)
                             : wait_report(changed, options, deadline);
}

Run define_wait(CLI::App& app) {
    const auto options = std::make_shared<WaitOptions>();
    app.add_option("WHAT", options->what, "device, state or temperature")
        ->type_name("")
        ->required();
    app.add_option("VALUE", options->value, "The state, or the temperature in degrees Celsius")
        ->type_name("");
    app.footer(
        "device: until one is connected, or the one of -d. state: until the device reports this\n"
        "state, such as idle. temperature: until the extruder's temperature has reached this\n"
        "value or passed it, from below or above. --timeout limits the time (exit code 8); an\n"
        "error that the device reports ends the wait (6).");
    app.callback([options] {
        const bool device = options->what == "device";
        if (std::find(kWaitGoals.begin(), kWaitGoals.end(), options->what) == kWaitGoals.end()) {
            throw CLI::ValidationError("wait for device, state or temperature, not for " +
                                       options->what);
        }
        if (device != options->value.empty()) {
            throw CLI::ValidationError("wait " + options->what +
                                       (device ? " takes no value" : " needs a value"));
        }
        if (options->what == "temperature") {
            const std::optional<float> degrees = parse_float(options->value);
            if (!degrees) {
                throw CLI::ValidationError("not a temperature: " + options->value);
            }
            options->degrees = *degrees;
        }
    });
    return [options](const Context& context) { run_wait(context, *options); };
}

}  // namespace

const Command kWaitCommand{"wait", "Wait for a device, a state or a temperature", define_wait};

}  // namespace jovu_cli
