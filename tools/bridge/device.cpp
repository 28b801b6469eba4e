// SPDX-License-Identifier: Apache-2.0
#include "bridge/device.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>

#include "jovu/response_timeout.h"
#include "terminal/format.h"

namespace jovu_bridge {

using namespace std::chrono_literals;
using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

/// How long a device may take for a status report, or to tell its version.
constexpr auto kReportLimit = 3s;
/// The longest time between two status reports that are asked for, so that changes show.
constexpr auto kPollPeriod = 1000ms;
constexpr int kMostControls = 32;
/// How long a disconnection may take to show.
constexpr auto kLeaveLimit = 400ms;
constexpr auto kLeavePoll = 20ms;

/// @return the most bytes that a text takes in a payload.
std::size_t size_in_json(const std::string& text) {
    std::size_t size = 3;  // Quotes and comma.
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        const bool escaped = letter == '"' || letter == '\\';
        size += byte < ' ' ? 6 : byte >= 0x7F ? 3 : escaped ? 2 : 1;
    }
    return size;
}

/// @return a report without what changes all the time.
std::string without_times(Json object) {
    object.erase("time");
    object.erase("boot_time");
    object.erase("idle_time");
    object["job"].erase("time_elapsed");
    return to_payload(object);
}

}  // namespace

Device::Device(Services& services, JovuDeviceAddress address, std::string name, std::string port,
               std::shared_ptr<std::atomic<std::uint64_t>> events)
    : services_(services),
      address_(address),
      name_(std::move(name)),
      port_(std::move(port)),
      events_(std::move(events)) {}

Device::~Device() {
    leave();
}

void Device::start() {
    requests_.post([this] { identify(); });
    const auto period = std::min<std::chrono::milliseconds>(
        kPollPeriod, services_.settings.get()->devices.status_interval);
    poll_timer_ = services_.scheduler.every(period, 0ms, [this] {
        if (!pushing_ && !polling_.exchange(true)) {
            control_.post([this] { poll(); });
        }
    });
}

void Device::take_settings() {
    const MutexLock lock(mutex_);
    has_identity_ = false;  // It tells whether the device is read-only.
}

void Device::identify() {
    if (gone_) {
        return;
    }
    const JovuResponseTimeout limit(kReportLimit);
    const std::shared_ptr<char> version = client().bio_get_version(address_);
    const MutexLock lock(mutex_);
    version_ = version ? version.get() : "";
    has_identity_ = false;  // Published with the next report.
}

void Device::poll() {
    if (!gone_ && !pushing_) {
        try {
            const MutexLock channel(job_channel_);
            const StatusReport report = request_status();
            publish_status(report);
        } catch (const JovuException& error) {
            if (!gone_) {
                services_.log.warning(name_ + ": " + error.what());
            }
        }
    }
    polling_ = false;
}

StatusReport Device::request_status() {
    const auto begin = Clock::now();
    try {
        StatusReport report = client().wait_for_status(address_, kReportLimit);
        services_.metrics.exchange(name_, Clock::now() - begin, "");
        return report;
    } catch (const JovuException& error) {
        services_.metrics.exchange(name_, Clock::now() - begin, code_of(error.code()));
        throw;
    }
}

Json Device::status_object(const StatusReport& report) const {
    Json object = {{"serial", name_}};
    object.update(jovu_cli::status_json(report));
    object["time"] = jovu_cli::utc_string(std::chrono::system_clock::now());
    return object;
}

void Device::publish_status(const StatusReport& report) {
    const Json object = status_object(report);
    const std::string essence = without_times(object);
    const std::shared_ptr<const Config> config = services_.settings.get();
    Json identity;
    bool publish = false;
    {
        const MutexLock lock(mutex_);
        publish = essence != last_status_ ||
                  Clock::now() - status_time_ >= config->devices.status_interval;
        if (publish) {
            last_status_ = essence;
            status_time_ = Clock::now();
        }
        if (!has_identity_ && !version_.empty()) {
            has_identity_ = true;
            identity = {{"serial", name_},
                        {"version", version_},
                        {"printer", jovu_cli::identity_json(report)},
                        {"port", port_},
                        {"bridge", services_.bridge},
                        {"read_only", matches_any(config->devices.read_only, name_)}};
        }
    }
    if (!identity.is_null()) {
        services_.outbox.state(topic("identity"), to_payload(identity));
    }
    if (publish) {
        services_.outbox.state(topic("status"), to_payload(object));
    }
    note_job(report);
    follow(report);
}

void Device::submit(const Running& running) {
    ++in_progress_;
    if (std::holds_alternative<Control>(running->request.content)) {
        const Control control = std::get<Control>(running->request.content);
        if (controls_.fetch_add(1) >= kMostControls) {
            --controls_;
            --in_progress_;
            services_.requests.finish(*running, Outcome::failed("busy", "too many requests wait"));
            return;
        }
        if (control == Control::abort) {
            abort_ = true;
            const MutexLock lock(mutex_);
            if (push_ != nullptr) {
                push_->cancel();
            }
        }
        const bool taken = control_.post(
            [this, running] {
                --controls_;
                carry_out(running, &Device::run_control);
            },
            control == Control::abort);
        if (!taken) {
            --controls_;
            --in_progress_;
            services_.requests.finish(*running, obstacle());
        }
        return;
    }
    const std::uint64_t most = services_.settings.get()->requests.max_queue;
    if (static_cast<std::uint64_t>(waiting_.fetch_add(1)) >= most) {
        --waiting_;
        --in_progress_;
        services_.requests.finish(
            *running, Outcome::failed("busy", std::to_string(most) +
                                                  " requests wait for the device already; repeat "
                                                  "the request later"));
        return;
    }
    services_.metrics.device_queue(name_, static_cast<std::size_t>(waiting_.load()));
    void (Device::*task)(const Running&) = &Device::run_call;
    if (std::holds_alternative<GcodeRequest>(running->request.content)) {
        task = &Device::run_gcode;
    } else if (std::holds_alternative<JobRequest>(running->request.content)) {
        task = &Device::run_job;
    } else if (std::holds_alternative<TraceRequest>(running->request.content)) {
        task = &Device::run_trace;
    }
    const bool taken = requests_.post([this, running, task] {
        services_.metrics.device_queue(name_, static_cast<std::size_t>(--waiting_));
        carry_out(running, task);
    });
    if (!taken) {
        --waiting_;
        --in_progress_;
        services_.requests.finish(*running, obstacle());
    }
}

void Device::carry_out(const Running& running, void (Device::*task)(const Running&)) {
    try {
        (this->*task)(running);
    } catch (const JovuException& error) {
        services_.requests.finish(*running, Outcome::failed(code_of(error.code()), error.what()));
    } catch (const std::exception& error) {
        services_.log.error(name_ + ": " + running->request.operation + ": " + error.what());
        services_.requests.finish(*running, Outcome::failed("unspecified", error.what()));
    }
    --in_progress_;
}

Outcome Device::obstacle() const {
    if (stopping_) {  // Before the other: the device is left at the end of a stop as well.
        return Outcome::failed("unavailable", "the bridge is stopping; nothing was sent");
    }
    if (gone_) {
        return Outcome::failed("disconnected", "the device has been unplugged");
    }
    return {};
}

bool Device::begin(const Running& running) {
    Outcome problem = obstacle();
    if (problem.code.empty() && running->expired()) {
        problem = Outcome::failed("expired", "the request expired before its turn came");
    }
    if (problem.code.empty()) {
        try {
            services_.requests.begin(*running);
            return true;
        } catch (const JournalError& error) {
            services_.log.error(error.what());
            problem = Outcome::failed("unavailable", error.what());
        }
    }
    services_.requests.finish(*running, problem);
    return false;
}

Device::Exchange Device::exchange(const std::function<Json()>& call) {
    const auto begin = Clock::now();
    Exchange made;
    made.result = call();
    made.message = JovuTransport::last_send_error();
    if (!made.message.empty()) {
        made.code = code_of(JovuTransport::last_send_error_code());
    }
    services_.metrics.exchange(name_, Clock::now() - begin, made.code);
    return made;
}

std::string Device::code_of(JovuError code) {
    const bool may_be_gone = code == JovuError::no_response || code == JovuError::closed ||
                             code == JovuError::transfer_failed;
    // An exchange fails a moment before its device counts as disconnected.
    for (auto waited = 0ms; may_be_gone && waited < kLeaveLimit; waited += kLeavePoll) {
        const auto connected = client().list_connected();
        if (gone_ || std::find(connected.begin(), connected.end(), address_) == connected.end()) {
            return jovu_error_name(JovuError::disconnected);
        }
        std::this_thread::sleep_for(kLeavePoll);
    }
    return jovu_error_name(code);
}

void Device::take_text(const std::string& text) {
    constexpr std::size_t kMostTexts = 1000;
    constexpr std::size_t kMostTextBytes = 262144;
    const MutexLock lock(mutex_);
    if (!collects_ || texts_.size() >= kMostTexts) {
        return;
    }
    const std::size_t bytes = size_in_json(text);
    if (text_bytes_ + bytes <= kMostTextBytes) {
        text_bytes_ += bytes;
        texts_.push_back(text);
    }
}

void Device::publish_event(const std::string& text, std::chrono::system_clock::time_point time) {
    const Json event = {{"number", ++*events_},
                        {"time", jovu_cli::utc_string(time)},
                        {"kind", "debug"},
                        {"text", text}};
    services_.outbox.event(topic("event"), to_payload(event));
    services_.metrics.event(name_);
}

bool Device::pause_for(Clock::duration time) {
    const auto until = Clock::now() + time;
    const MutexLock lock(mutex_);
    while (!gone_ && !stopping_ && Clock::now() < until) {
        changed_.wait_until(mutex_, until);
    }
    return !gone_ && !stopping_;
}

void Device::begin_stop() {
    {
        const MutexLock lock(mutex_);
        stopping_ = true;
        abort_ = true;
        if (push_ != nullptr) {
            push_->cancel();
        }
    }
    changed_.notify_all();
    services_.scheduler.remove(poll_timer_);
    requests_.post([this] { end_trace(Outcome::failed("unavailable", "the bridge is stopping")); },
                   true);
    std::optional<Followed> followed;
    {
        const MutexLock lock(mutex_);
        followed.swap(followed_);
    }
    if (followed) {
        services_.requests.finish(*followed->running, left_to_device());
        --in_progress_;
    }
}

bool Device::idle() const {
    return in_progress_ == 0;
}

void Device::leave() {
    {
        const MutexLock lock(mutex_);
        gone_ = true;
        abort_ = true;
        if (push_ != nullptr) {
            push_->cancel();
        }
    }
    changed_.notify_all();
    for (const auto* timer : {&poll_timer_, &flush_timer_, &trace_timer_}) {
        services_.scheduler.remove(*timer);
    }
    requests_.end();
    control_.end();
    end_trace(obstacle());
    std::optional<Followed> followed;
    {
        const MutexLock lock(mutex_);
        followed.swap(followed_);
    }
    if (followed) {
        services_.requests.finish(*followed->running, obstacle());
        --in_progress_;
    }
}

}  // namespace jovu_bridge
