// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu trace`: records the control loop of a servo.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "session/device_names.h"
#include "session/reports.h"
#include "terminal/format.h"
#include "terminal/printable.h"
#include "trace/trace_recorder.h"

namespace jovu_cli {
namespace {

struct TraceOptions {
    std::int16_t servo = 0;
    std::optional<std::chrono::milliseconds> limit;
    std::string csv;                ///< File for the samples; none when empty.
    std::string plot;               ///< File for the drawing; none when empty.
    std::optional<float> distance;  ///< Of a move, in client units.
};

using namespace std::chrono_literals;

/// Longer than the library's limit of an exchange; short once the program is to end.
constexpr Watchdog::Limits kStartLimits{20s, 2s, 60s};
/// The device sends samples: its response follows those that are queued, or it has failed.
constexpr Watchdog::Limits kEndLimits{3s, 3s, 60s};

/// "move_type" of a move by a distance, and the result of an accepted move.
constexpr std::uint32_t kRelativeMove = 1;
constexpr std::uint32_t kMoveAccepted = 0;

/// One servo of one device.
struct Target {
    Session& session;
    JovuDeviceAddress address;
    servo_dc_name_t servo;

    std::string name() const {
        return "servo " + std::to_string(servo) + " of " + device_name(address);
    }
};

/// The tracing of a servo. The destructor switches it off.
class Tracing {
public:
    explicit Tracing(const Target& target) : target_(target) {}
    ~Tracing() {
        try {
            end();
        } catch (const Failure& failure) {
            print_error(std::string("jovu: ") + printable(failure.what()));
        }
    }
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;

    /// @throws Failure; the tracing may be on even then.
    void begin() const { switch_to(true, kStartLimits); }

    /// Switches the tracing off. Has no effect the second time.
    /// @throws Failure when the device does not confirm it.
    void end() {
        if (ended_) {
            return;
        }
        ended_ = true;
        if (target_.session.has_closed()) {
            print_error("jovu: tracing of " + target_.name() +
                        " may still be on: the device did not respond and was closed");
            return;
        }
        if (!target_.session.is_connected(target_.address)) {
            device_is_gone();
            return;
        }
        switch_to(false, kEndLimits);
    }

    /// The device has disconnected: the tracing needs no switching off.
    void device_is_gone() {
        ended_ = true;
        print_error("jovu: " + device_name(target_.address) +
                    " has disconnected: the tracing was not switched off");
    }

private:
    void switch_to(bool on, Watchdog::Limits limits) const {
        const std::string name = std::string(on ? "trace start" : "trace end") + " of servo " +
                                 std::to_string(target_.servo);
        target_.session.finish_exchange(target_.address, name, limits, [&] {
            target_.session.client().servo_dc_trace_enable(target_.address, target_.servo, on);
        });
    }

    const Target& target_;
    bool ended_ = false;
};

void start_move(const Target& target, float distance) {
    Client& client = target.session.client();
    auto move = std::make_shared<servo_dc_move_config_t>();
    target.session.finish_exchange(target.address, "request for the default move", kStartLimits,
                                   [&] { *move = client.servo_dc_move_default(target.address); });
    target.session.stop().throw_if_stopped();
    move->move_type = kRelativeMove;
    move->start_sync = false;
    move->distance = distance;
    servo_move_call_result_t result{};
    target.session.finish_exchange(
        target.address, "move of servo " + std::to_string(target.servo), kStartLimits,
        [&] { result = client.servo_dc_move(target.address, target.servo, move); });
    if (result != kMoveAccepted) {
        throw Failure(ExitCode::device_refused, device_name(target.address) +
                                                    " refused the move with result " +
                                                    std::to_string(result));
    }
}

void take(const Target& target, TraceRecorder& recorder, const Notification& notification) {
    if (notification.address != target.address) {
        return;
    }
    if (const auto* sample = std::get_if<servo_trace_msg>(&notification.what)) {
        recorder.add(*sample);
    } else if (const auto* message = std::get_if<DebugMessage>(&notification.what)) {
        print_error("jovu: " + device_name(notification.address) +
                    " prints: " + printable(message->value_or("")));
    }
}

void record(const Target& target, TraceRecorder& recorder, const TraceOptions& options) {
    NotificationQueue& notifications = target.session.notifications();
    Tracing tracing(target);
    tracing.begin();
    if (options.distance && target.session.stop().state() == Stop::none) {
        start_move(target, *options.distance);
    }
    const auto end = options.limit ? NotificationQueue::Clock::now() + *options.limit
                                   : NotificationQueue::Clock::time_point::max();
    while (const std::optional<Notification> notification = target.session.next_notification(end)) {
        if (notification->address == target.address &&
            std::holds_alternative<Disconnected>(notification->what)) {
            tracing.device_is_gone();
        }
        target.session.check_connected(target.address, *notification);
        take(target, recorder, *notification);
        if (NotificationQueue::Clock::now() >= end) {
            break;  // Samples arrive without a pause.
        }
    }
    tracing.end();
    // All samples of the servo have arrived.
    while (const std::optional<Notification> notification = notifications.poll()) {
        take(target, recorder, *notification);
    }
    recorder.add_lost(notifications.take_lost());
}

/// @return the device's name of the servo.
std::string servo_name_of(const Target& target) {
    const std::shared_ptr<char> name =
        target.session.exchange(target.address, "request for the servo's name", [&] {
            return target.session.client().servo_dc_name_str_get(target.address, target.servo);
        });
    return name ? name.get() : "";
}

Json summary_json(const Target& target, const std::string& name, const TraceRecorder& recorder,
                  const TraceOptions& options) {
    const TraceStatistics& statistics = recorder.statistics();
    const auto range = [](const Range& values) {
        return Json{{"lowest", values.lowest}, {"highest", values.highest}};
    };
    const auto seconds = [](std::uint64_t ticks) {
        return static_cast<double>(ticks) / kTraceRate;
    };
    Json object = device_json(target.address);
    object.update({{"servo", static_cast<std::int32_t>(target.servo)},
                   {"name", name},
                   {"samples", statistics.samples()},
                   {"seconds", seconds(statistics.ticks())},
                   {"gaps", statistics.gaps()},
                   {"missing", statistics.missing()},
                   {"restarts", statistics.restarts()},
                   {"lost", recorder.lost()},
                   {"position", range(statistics.position())},
                   {"following_error",
                    {{"largest", statistics.largest_error()},
                     {"at", seconds(statistics.largest_error_ticks())}}},
                   {"pwm", range(statistics.pwm())},
                   {"csv", options.csv.empty() ? Json() : Json(options.csv)},
                   {"plot", options.plot.empty() ? Json() : Json(options.plot)}});
    return object;
}

std::string range_string(const Range& range) {
    return std::to_string(range.lowest) + " to " + std::to_string(range.highest);
}

std::string gaps_string(const TraceStatistics& statistics) {
    return statistics.gaps() == 0 ? "none"
                                  : std::to_string(statistics.gaps()) + ", " +
                                        std::to_string(statistics.missing()) + " samples missing";
}

std::string error_string(const TraceStatistics& statistics) {
    return std::to_string(statistics.largest_error()) + " at " +
           tick_string(statistics.largest_error_ticks()) + " s";
}

std::string samples_string(const TraceStatistics& statistics) {
    return std::to_string(statistics.samples()) + " in " + tick_string(statistics.ticks()) + " s";
}

void print_summary(Output& out, const Target& target, const std::string& name,
                   const TraceRecorder& recorder, const TraceOptions& options) {
    const TraceStatistics& statistics = recorder.statistics();
    out.line(labelled("Servo", target.name() + (name.empty() ? "" : ", " + printable(name))));
    out.line(labelled("Samples", samples_string(statistics)));
    out.line(labelled("Gaps", gaps_string(statistics)));
    out.line(labelled("Position", range_string(statistics.position())));
    out.line(labelled("Largest error", error_string(statistics)));
    out.line(labelled("PWM", range_string(statistics.pwm())));
    if (!options.csv.empty()) {
        out.line(labelled("Samples in", printable(options.csv)));
    }
    if (!options.plot.empty()) {
        out.line(labelled("Plot in", printable(options.plot)));
    }
}

TracePlot::Title plot_title(const Target& target, const std::string& name,
                            const TraceStatistics& statistics) {
    return {"Trace of " + target.name() + (name.empty() ? "" : ": " + printable(name)),
            "samples: " + samples_string(statistics) + "; gaps: " + gaps_string(statistics) +
                "; largest following error: " + error_string(statistics)};
}

void report_missing(const TraceRecorder& recorder) {
    const TraceStatistics& statistics = recorder.statistics();
    if (statistics.gaps() > 0) {
        print_error("jovu: the trace has gaps: " + gaps_string(statistics));
    }
    print_lost_events(recorder.lost(), "recorded");
    if (statistics.restarts() > 0) {
        print_error("jovu: the interrupt count decreased or repeated: " +
                    std::to_string(statistics.restarts()) + " times");
    }
}

/// @return the failure of a recording, with the path of the samples recorded so far.
Failure broken_off(const Failure& failure, const TraceRecorder& recorder) {
    const std::string path = recorder.unfinished_path();
    if (path.empty()) {
        return failure;
    }
    return Failure(failure.code(),
                   std::string(failure.what()) + "; the samples recorded so far are in " + path,
                   failure.hint());
}

void run_trace(const Context& context, const TraceOptions& options) {
    TraceRecorder recorder(options.servo, options.csv, options.plot);
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const Target target{session, session.pick_device(), servo_dc_name_t{options.servo}};
    const std::string name = servo_name_of(target);
    context.stop.throw_if_stopped();
    try {
        record(target, recorder, options);
    } catch (const Failure& failure) {
        throw broken_off(failure, recorder);
    }
    const TraceStatistics& statistics = recorder.statistics();
    if (statistics.samples() == 0) {
        context.stop.throw_if_stopped();
        throw Failure(ExitCode::device_refused, "no samples received from " + target.name(),
                      "check the number of the servo");
    }
    try {
        recorder.finish(plot_title(target, name, statistics));
    } catch (const Failure&) {
        context.stop.throw_if_stopped();  // A Ctrl-C also ends gnuplot.
        throw;
    }
    report_missing(recorder);
    if (context.out.json()) {
        context.out.object(summary_json(target, name, recorder, options));
    } else {
        print_summary(context.out, target, name, recorder, options);
    }
    context.stop.throw_if_stopped();
}

Run define_trace(CLI::App& app) {
    const auto options = std::make_shared<TraceOptions>();
    app.add_option("SERVO", options->servo, "The servo's number, -32768 to 32767")
        ->type_name("")
        ->required();
    add_seconds_option(app, "--seconds", options->limit, "Stop after this time, 0 to 604800");
    CLI::Option* csv =
        app.add_option("--csv", options->csv, "Write the samples to a file")->type_name("FILE");
    CLI::Option* plot =
        app.add_option("--plot", options->plot, "Draw the samples as a PNG image; needs gnuplot")
            ->type_name("FILE");
    app.callback([options, csv, plot] {
        if ((csv->count() > 0 && options->csv.empty()) ||
            (plot->count() > 0 && options->plot.empty())) {
            throw CLI::ValidationError("the path of a file is empty");
        }
        const auto normalized = [](const std::string& path) {
            return std::filesystem::absolute(path).lexically_normal();
        };
        if (!options->csv.empty() && !options->plot.empty() &&
            normalized(options->csv) == normalized(options->plot)) {
            throw CLI::ValidationError("--csv and --plot name the same file: " + options->csv);
        }
    });
    app.add_option_function<std::string>(
           "--move",
           [options](const std::string& value) {
               options->distance = parse_float(value);
               if (!options->distance) {
                   throw CLI::ValidationError("not a distance: " + value);
               }
           },
           "Move by this distance, in client units, when the tracing is on")
        ->type_name("DISTANCE");
    app.footer(
        "Records until Ctrl-C without --seconds. Switches the tracing off at the end, also after\n"
        "an error. Counts and reports missing samples.");
    return [options](const Context& context) { run_trace(context, *options); };
}

}  // namespace

const Command kTraceCommand{"trace", "Record the control loop of a servo", define_trace};

}  // namespace jovu_cli
