/// @file
/// `jovu trace`: records what a servo's control loop does.

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "printable.h"
#include "report_text.h"
#include "session.h"
#include "session_lease.h"
#include "trace_recorder.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

/// The library gives an exchange 15 s. Who wants to leave need not wait for them.
constexpr Watchdog::Limits start_limits{20s, 2s, 60s};
/// The device has just been sending samples: it answers soon, though behind those that still wait
/// for being read, or is in trouble.
constexpr Watchdog::Limits end_limits{3s, 3s, 60s};

/// "move_type" of a move by a distance, and the verdict on a move that was taken on.
constexpr std::uint32_t relative_move = 1;
constexpr std::uint32_t move_accepted = 0;

/// One servo of one device.
struct Target {
    Session& session;
    JovuDeviceAddress address;
    servo_dc_name_t servo;

    std::string text() const {
        return "servo " + std::to_string(servo) + " of " + to_string(address);
    }
};

/// The tracing of a servo: off again when this object goes, on every way out.
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

    /// @throws Failure; the tracing may be on all the same.
    void begin() const { switch_to(true, start_limits); }

    /// Switches the tracing off. Does nothing the second time.
    /// @throws Failure when the device does not confirm it.
    void end() {
        if (ended_) {
            return;
        }
        ended_ = true;
        if (target_.session.has_closed()) {
            print_error("jovu: tracing of " + target_.text() +
                        " may still be on: the device did not answer and was closed");
            return;
        }
        if (!target_.session.is_connected(target_.address)) {
            device_is_gone();
            return;
        }
        switch_to(false, end_limits);
    }

    /// Nothing is switched off any more.
    void device_is_gone() {
        ended_ = true;
        print_error("jovu: " + to_string(target_.address) +
                    " is gone: there is no tracing to switch off");
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
    target.session.finish_exchange(target.address, "request for the default move", start_limits,
                                   [&] { *move = client.servo_dc_move_default(target.address); });
    target.session.stop().throw_if_stopped();
    move->move_type = relative_move;
    move->start_sync = false;
    move->distance = distance;
    servo_move_call_result_t result{};
    target.session.finish_exchange(
        target.address, "move of servo " + std::to_string(target.servo), start_limits,
        [&] { result = client.servo_dc_move(target.address, target.servo, move); });
    if (result != move_accepted) {
        throw Failure(
            ExitCode::device_refused,
            to_string(target.address) + " refused the move with result " + std::to_string(result));
    }
}

void take(const Target& target, TraceRecorder& recorder, const Notice& notice) {
    if (notice.address != target.address) {
        return;
    }
    if (const auto* sample = std::get_if<servo_trace_msg>(&notice.what)) {
        recorder.add(*sample);
    } else if (const auto* text = std::get_if<DebugText>(&notice.what)) {
        print_error("jovu: " + to_string(notice.address) +
                    " prints: " + printable(text->value_or("")));
    }
}

void record(const Target& target, TraceRecorder& recorder, const TraceOptions& options) {
    Inbox& inbox = target.session.inbox();
    Tracing tracing(target);
    tracing.begin();
    if (options.distance && target.session.stop().state() == Stop::none) {
        start_move(target, *options.distance);
    }
    const auto end =
        options.limit ? Inbox::Clock::now() + *options.limit : Inbox::Clock::time_point::max();
    while (const std::optional<Notice> notice = target.session.next_notice(end)) {
        if (notice->address == target.address &&
            std::holds_alternative<Disconnected>(notice->what)) {
            tracing.device_is_gone();
        }
        target.session.check_connected(target.address, *notice);
        take(target, recorder, *notice);
        if (Inbox::Clock::now() >= end) {
            break;  // Samples come without a pause.
        }
    }
    tracing.end();
    // What the servo has sent up to now is here.
    while (const std::optional<Notice> notice = inbox.poll()) {
        take(target, recorder, *notice);
    }
    recorder.add_lost(inbox.take_lost());
}

/// The name that the device has for the servo.
std::string servo_text(const Target& target) {
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
        return static_cast<double>(ticks) / trace_rate;
    };
    return {{"device", to_string(target.address)},
            {"servo", static_cast<std::int32_t>(target.servo)},
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
            {"plot", options.plot.empty() ? Json() : Json(options.plot)}};
}

std::string range_text(const Range& range) {
    return std::to_string(range.lowest) + " to " + std::to_string(range.highest);
}

std::string gaps_text(const TraceStatistics& statistics) {
    return statistics.gaps() == 0 ? "none"
                                  : std::to_string(statistics.gaps()) + ", " +
                                        std::to_string(statistics.missing()) + " samples missing";
}

std::string error_text(const TraceStatistics& statistics) {
    return std::to_string(statistics.largest_error()) + " at " +
           tick_text(statistics.largest_error_ticks()) + " s";
}

std::string samples_text(const TraceStatistics& statistics) {
    return std::to_string(statistics.samples()) + " in " + tick_text(statistics.ticks()) + " s";
}

void print_summary(Output& out, const Target& target, const std::string& name,
                   const TraceRecorder& recorder, const TraceOptions& options) {
    const TraceStatistics& statistics = recorder.statistics();
    out.line(labelled("Servo", target.text() + (name.empty() ? "" : ", " + printable(name))));
    out.line(labelled("Samples", samples_text(statistics)));
    out.line(labelled("Gaps", gaps_text(statistics)));
    out.line(labelled("Position", range_text(statistics.position())));
    out.line(labelled("Largest error", error_text(statistics)));
    out.line(labelled("PWM", range_text(statistics.pwm())));
    if (!options.csv.empty()) {
        out.line(labelled("Samples in", printable(options.csv)));
    }
    if (!options.plot.empty()) {
        out.line(labelled("Plot in", printable(options.plot)));
    }
}

TracePlot::Title plot_title(const Target& target, const std::string& name,
                            const TraceStatistics& statistics) {
    return {"Trace of " + target.text() + (name.empty() ? "" : ": " + printable(name)),
            "samples: " + samples_text(statistics) + "; gaps: " + gaps_text(statistics) +
                "; largest following error: " + error_text(statistics)};
}

void report_missing(const TraceRecorder& recorder) {
    const TraceStatistics& statistics = recorder.statistics();
    if (statistics.gaps() > 0) {
        print_error("jovu: the trace has gaps: " + gaps_text(statistics));
    }
    if (recorder.lost() > 0) {
        print_error("jovu: events lost, they come faster than they can be recorded: " +
                    std::to_string(recorder.lost()));
    }
    if (statistics.restarts() > 0) {
        print_error("jovu: the interrupt count went back or stood still: " +
                    std::to_string(statistics.restarts()) + " times");
    }
}

/// A recording that has failed: what there is of it is not thrown away.
Failure broken_off(const Failure& failure, const TraceRecorder& recorder) {
    const std::string path = recorder.unfinished_path();
    if (path.empty()) {
        return failure;
    }
    return Failure(failure.code(),
                   std::string(failure.what()) + "; what was recorded until then is in " + path,
                   failure.hint());
}

}  // namespace

void run_trace(const Context& context, const TraceOptions& options) {
    TraceRecorder recorder(options.servo, options.csv, options.plot);
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const Target target{session, session.pick_device(), servo_dc_name_t{options.servo}};
    const std::string name = servo_text(target);
    context.stop.throw_if_stopped();
    try {
        record(target, recorder, options);
    } catch (const Failure& failure) {
        throw broken_off(failure, recorder);
    }
    const TraceStatistics& statistics = recorder.statistics();
    if (statistics.samples() == 0) {
        context.stop.throw_if_stopped();
        throw Failure(ExitCode::device_refused, "no samples came of " + target.text(),
                      "is there such a servo?");
    }
    try {
        recorder.finish(plot_title(target, name, statistics));
    } catch (const Failure&) {
        context.stop.throw_if_stopped();  // A Ctrl-C ends the plotting program as well.
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

}  // namespace jovu_cli
