// SPDX-License-Identifier: Apache-2.0

/// @file
/// Calls, gcode, traces, and requests about the running job.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "bridge/device.h"
#include "firmware/firmware_commands.h"
#include "jovu/response_timeout.h"

namespace jovu_bridge {

using namespace std::chrono_literals;
using jovu_cli::JobPhase;
using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

/// The interpreter's result of an executed line; any other result is a refusal.
constexpr std::uint32_t kResultOk = 0;

/// How long a device may take to show the state that was requested.
constexpr auto kStateLimit = 2s;
constexpr auto kStatePoll = 200ms;

/// Bytes of the lines of gcode in a response, which is to fit the largest message of a broker.
constexpr std::size_t kMaxResult = 524288;

/// How often samples are published, and how many may wait meanwhile.
constexpr auto kFlushPeriod = 100ms;
constexpr std::size_t kMostSamples = 2000;
/// Longest time for turning a trace off.
constexpr auto kTraceOffLimit = 3s;
/// The shortest time between two attempts to end a trace that nobody asked for.
constexpr auto kStrayPeriod = 10s;

Outcome failure(const std::string& code, const std::string& message, Json result) {
    return {code, message, std::move(result)};
}

}  // namespace

void Device::run_call(const Running& running) {
    if (!begin(running)) {
        return;
    }
    const auto& call = std::get<CallRequest>(running->request.content);
    std::optional<JovuResponseTimeout> limit;
    if (call.timeout) {
        limit.emplace(*call.timeout);
    }
    Exchange made =
        exchange([&] { return call.command->call(client(), address_, *call.arguments); });
    services_.requests.finish(*running, made.code.empty()
                                            ? Outcome::done(std::move(made.result))
                                            : Outcome::failed(made.code, made.message));
}

std::vector<std::string> Device::take_texts() {
    const MutexLock lock(mutex_);
    return std::exchange(texts_, {});
}

void Device::run_gcode(const Running& running) {
    const auto& gcode = std::get<GcodeRequest>(running->request.content);
    {
        const MutexLock lock(mutex_);
        abort_ = stopping_.load() || gone_.load();
    }
    if (!begin(running)) {
        return;
    }
    {
        const MutexLock lock(mutex_);
        collects_ = true;
        text_bytes_ = 0;
    }
    const bool several = gcode.lines.size() > 1;
    if (several) {
        services_.requests.accepted(*running);
    }
    Json lines = Json::array();
    std::size_t ended = 0;  // The response has the first of them.
    std::size_t bytes = 0;
    std::size_t refused = 0;
    Outcome outcome;
    for (std::size_t i = 0; i < gcode.lines.size() && outcome.code.empty(); ++i) {
        const std::string& code = gcode.lines[i];
        const std::string number = std::to_string(gcode.numbers[i]);
        if (abort_) {
            outcome = Outcome::failed("cancelled", "ended before line " + number + ": " + code);
            break;
        }
        const Exchange made =
            exchange([&] { return client().gcode_process_command(address_, code); });
        if (!made.code.empty()) {
            outcome =
                Outcome::failed(made.code, "line " + number + " (" + code + "): " + made.message);
            break;
        }
        const auto result = made.result.get<std::uint32_t>();
        const Json line = {
            {"serial", name_},  {"line", gcode.numbers[i]},        {"command", code},
            {"result", result}, {"accepted", result == kResultOk}, {"texts", take_texts()}};
        if (several) {
            services_.requests.progress(
                *running, {{"sent", i + 1}, {"total", gcode.lines.size()}, {"line", line}});
        }
        bytes += to_payload(line).size();
        if (bytes <= kMaxResult) {
            lines.push_back(line);
        }
        ++ended;
        if (result != kResultOk) {
            ++refused;
            if (!gcode.keep_going) {
                outcome =
                    Outcome::failed("refused", "device refused line " + number + " with result " +
                                                   std::to_string(result) + ": " + code);
            }
        }
    }
    if (outcome.code.empty() && refused > 0) {
        outcome = Outcome::failed("refused", "lines refused: " + std::to_string(refused) + " of " +
                                                 std::to_string(gcode.lines.size()));
    }
    {
        const MutexLock lock(mutex_);
        collects_ = false;
        texts_.clear();
    }
    outcome.result = Json::object();
    if (lines.size() < ended) {
        outcome.result["left_out"] = ended - lines.size();
    }
    outcome.result["lines"] = std::move(lines);
    services_.requests.finish(*running, outcome);
}

void Device::run_control(const Running& running) {
    const Control control = std::get<Control>(running->request.content);
    if (pushing_ && control != Control::abort) {
        services_.requests.finish(*running,
                                  Outcome::failed("busy",
                                                  "a job is being sent, which takes the whole job "
                                                  "channel; 'abort' ends it"));
        return;
    }
    if (!begin(running)) {
        return;
    }
    services_.requests.finish(*running, this->control(running, control));
}

Outcome Device::control(const Running& running, Control control) {
    // An abort waits here for the rest of a push, which is filler.
    const MutexLock channel(job_channel_);
    StatusReport report;
    if (control == Control::status) {
        report = request_status();
    } else if (control == Control::abort) {
        client().SendAbort(address_);
        report = request_status();
    } else {
        return change_job(running, control);
    }
    publish_status(report);
    Json result =
        control == Control::status ? Json::object() : Json{{"request", "abort"}, {"sent", true}};
    result.update(status_object(report));
    return Outcome::done(std::move(result));
}

/// Pauses or resumes the job. One request toggles both, so it is sent only when the state differs.
Outcome Device::change_job(const Running& running, Control control) {
    const JobPhase wanted = control == Control::pause ? JobPhase::paused : JobPhase::active;
    const std::string& name = running->request.operation;
    StatusReport report = request_status();
    const auto result = [&](bool sent) {
        Json object = {{"request", name}, {"sent", sent}};
        object.update(status_object(report));
        return object;
    };
    const JobPhase phase = jovu_cli::state_phase(report.state);
    if (phase == wanted) {
        return Outcome::done(result(false));
    }
    if (phase != JobPhase::paused && phase != JobPhase::active) {
        return failure("refused",
                       "no job to " + name + ": the device reports the state " +
                           jovu_cli::state_string(report),
                       result(false));
    }
    client().SendPause(address_);
    const auto deadline = Clock::now() + kStateLimit;
    report = request_status();
    while (jovu_cli::state_phase(report.state) != wanted && Clock::now() < deadline &&
           pause_for(kStatePoll)) {
        report = request_status();
    }
    publish_status(report);
    if (jovu_cli::state_phase(report.state) != wanted) {
        return failure(
            "refused",
            name + " was sent, but the device reports the state " + jovu_cli::state_string(report),
            result(true));
    }
    return Outcome::done(result(true));
}

void Device::run_trace(const Running& running) {
    const auto& request = std::get<TraceRequest>(running->request.content);
    bool busy = false;
    {
        const MutexLock lock(mutex_);
        busy = trace_.has_value();
        if (!busy) {
            trace_ = Trace{running, request.servo, 0, {}, 0, 0};
        }
    }
    if (busy) {
        services_.requests.finish(
            *running, Outcome::failed("busy", "another trace of this device is in progress"));
        return;
    }
    if (!begin(running)) {
        const MutexLock lock(mutex_);
        trace_.reset();
        return;
    }
    ++in_progress_;  // Until end_trace().
    const Exchange made = exchange([&] {
        client().servo_dc_trace_enable(address_, static_cast<servo_dc_name_t>(request.servo), true);
        return Json();
    });
    if (!made.code.empty()) {
        end_trace(Outcome::failed(made.code, made.message));
        return;
    }
    services_.requests.accepted(*running);
    flush_timer_ = services_.scheduler.every(kFlushPeriod, kFlushPeriod, [this] { flush_trace(); });
    trace_timer_ = services_.scheduler.after(
        request.length, [this] { requests_.post([this] { end_trace({}); }, true); });
}

/// Turns the trace off, if there is one, and ends its request. On the thread requests_, or when
/// that has ended.
void Device::end_trace(const Outcome& end) {
    Running running;
    std::uint32_t servo = 0;
    {
        const MutexLock lock(mutex_);
        if (!trace_) {
            return;
        }
        running = trace_->running;
        servo = trace_->servo;
    }
    services_.scheduler.remove(trace_timer_);
    services_.scheduler.remove(flush_timer_);
    Outcome outcome = end;
    if (!gone_) {
        const JovuResponseTimeout limit(kTraceOffLimit);
        const Exchange made = exchange([&] {
            client().servo_dc_trace_enable(address_, static_cast<servo_dc_name_t>(servo), false);
            return Json();
        });
        if (!made.code.empty() && outcome.code.empty()) {
            outcome = Outcome::failed(made.code, "the trace cannot be turned off: " + made.message);
        }
    }
    flush_trace();
    {
        const MutexLock lock(mutex_);
        outcome.result = {
            {"servo", servo}, {"samples", trace_->first}, {"lost", trace_->lost_total}};
        trace_.reset();
    }
    services_.requests.finish(*running, outcome);
    --in_progress_;
}

void Device::take_sample(const servo_trace_msg& sample) {
    std::optional<std::uint32_t> stray;
    {
        const MutexLock lock(mutex_);
        const auto servo = static_cast<std::uint32_t>(sample.servo_name);
        if (trace_ && trace_->servo == servo) {
            if (trace_->samples.size() < kMostSamples) {
                trace_->samples.push_back(sample);
            } else {
                ++trace_->lost;
            }
        } else if (!stray_ && (stray_time_ == Clock::time_point() ||
                               Clock::now() - stray_time_ >= kStrayPeriod)) {
            stray_ = true;
            stray_time_ = Clock::now();
            stray = servo;
        }
    }
    if (stray) {
        requests_.post([this, servo = *stray] { stray_trace(servo); });
    }
}

/// Turns off a trace that an earlier bridge or another program left on. After the requests that
/// wait, and seldom: a device may ignore the command and send samples all the time.
void Device::stray_trace(std::uint32_t servo) {
    {
        const MutexLock lock(mutex_);
        if (trace_ && trace_->servo == servo) {
            stray_ = false;
            return;
        }
    }
    if (!gone_ && !matches_any(services_.settings.get()->devices.read_only, name_)) {
        const JovuResponseTimeout limit(kTraceOffLimit);
        exchange([&] {
            client().servo_dc_trace_enable(address_, static_cast<servo_dc_name_t>(servo), false);
            return Json();
        });
    }
    const MutexLock lock(mutex_);
    stray_ = false;
}

void Device::flush_trace() {
    std::vector<servo_trace_msg> samples;
    std::uint64_t lost = 0;
    std::uint64_t first = 0;
    std::uint32_t servo = 0;
    {
        const MutexLock lock(mutex_);
        if (!trace_ || (trace_->samples.empty() && trace_->lost == 0)) {
            return;
        }
        samples.swap(trace_->samples);
        lost = std::exchange(trace_->lost, 0);
        first = trace_->first;
        servo = trace_->servo;
        trace_->first += samples.size() + lost;
        trace_->lost_total += lost;
    }
    Json rows = Json::array();
    for (const servo_trace_msg& sample : samples) {
        rows.push_back({sample.servo_state, sample.int_cnt, sample.pos_cmd, sample.pos, sample.pwm,
                        sample.padout_dist});
    }
    const Json batch = {
        {"servo", servo},
        {"first", first},
        {"columns", {"servo_state", "int_cnt", "pos_cmd", "pos", "pwm", "padout_dist"}},
        {"samples", std::move(rows)},
        {"lost", lost}};
    const bool sent = services_.outbox.samples(topic("trace"), batch.dump());
    services_.metrics.trace_samples(name_, samples.size() + lost,
                                    sent ? lost : samples.size() + lost);
    if (!sent) {
        const MutexLock lock(mutex_);
        if (trace_) {
            trace_->lost_total += samples.size();
        }
    }
}

}  // namespace jovu_bridge
