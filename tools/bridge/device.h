// SPDX-License-Identifier: Apache-2.0

/// @file
/// One controller: its requests, its status, its job, its events and traces.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bridge/config.h"
#include "bridge/job_source.h"
#include "bridge/lane.h"
#include "bridge/running_requests.h"
#include "bridge/scheduler.h"
#include "firmware/status_report.h"
#include "jovu/callback_client.h"
#include "mqtt/topics.h"

namespace jovu_bridge {

using jovu_cli::StatusReport;

/// The configuration in force, which a reload replaces. Threads: any.
class Settings {
public:
    explicit Settings(Config config) : config_(std::make_shared<const Config>(std::move(config))) {}

    std::shared_ptr<const Config> get() const {
        const jovu_cli::MutexLock lock(mutex_);
        return config_;
    }
    void set(Config config) {
        auto next = std::make_shared<const Config>(std::move(config));
        const jovu_cli::MutexLock lock(mutex_);
        config_.swap(next);
    }

private:
    mutable jovu_cli::Mutex mutex_;
    std::shared_ptr<const Config> config_ JOVU_GUARDED_BY(mutex_);
};

/// What all devices use. Outlives them.
struct Services {
    JovuCallbackClient& usb;
    RunningRequests& requests;
    Outbox& outbox;
    Metrics& metrics;
    Log& log;
    Scheduler& scheduler;
    JobSource& jobs;
    Settings& settings;
    jovu_mqtt::Topics topics;
    std::string bridge;  ///< Its name.
};

/// Carries out the requests to one controller, from its connecting to its disconnecting.
///
/// Two threads: `requests_` carries out calls, gcode, traces and jobs one after the other;
/// `control_` asks for status reports, and pauses, resumes and aborts. A job that is being sent
/// owns the job channel: the control thread then asks for nothing.
///
/// Threads: any, unless a member says otherwise.
class Device {
public:
    /// @param name its serial number, or what stands for it.
    /// @param events counts the events of this name since the start of the bridge.
    Device(Services& services, JovuDeviceAddress address, std::string name, std::string port,
           std::shared_ptr<std::atomic<std::uint64_t>> events);
    /// As leave().
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const std::string& name() const noexcept { return name_; }
    const std::string& port() const noexcept { return port_; }

    /// Publishes the identity, and begins to ask for status reports.
    void start();

    /// The configuration has changed. The time between status reports is read anew with each, but
    /// one below a second takes effect when the device connects.
    void take_settings();

    /// Takes a request that RunningRequests::admit() has returned.
    void submit(const Running& running);

    /// A debug message has arrived. On the thread that receives; does not block.
    void take_text(const std::string& text);
    /// A trace sample has arrived. On the thread that receives; does not block.
    void take_sample(const servo_trace_msg& sample);

    /// Publishes a debug message. Not on the thread that receives.
    void publish_event(const std::string& text, std::chrono::system_clock::time_point time);

    /// Ends what is in progress as soon as the device can bear it: a push goes on with filler, a
    /// trace is turned off, requests that wait are refused. Returns at once.
    void begin_stop();
    /// @return whether no request is in progress.
    bool idle() const;

    /// The device has disconnected: all requests end. Waits for the threads.
    void leave();

private:
    using Clock = std::chrono::steady_clock;

    /// A job whose requester waits for its end.
    struct Followed {
        Running running;
        std::string job_id;
        std::string file;
    };
    struct Trace {
        Running running;
        std::uint32_t servo = 0;
        std::uint64_t first = 0;  ///< Number of the first sample in `samples`.
        std::vector<servo_trace_msg> samples;
        std::uint64_t lost = 0;        ///< Since the last batch.
        std::uint64_t lost_total = 0;  ///< Of this trace.
    };
    /// The job topic.
    struct JobState {
        std::string request;  ///< Its id; empty for a job that did not come through the bridge.
        std::string job_id;
        std::string file;
        std::string phase = "idle";
        double percent = 0;
        std::uint64_t sent = 0;
        std::uint64_t total = 0;
    };
    /// An exchange with the device that has ended.
    struct Exchange {
        jovu_cli::Json result;
        std::string code;  ///< Empty for success.
        std::string message;
    };

    JovuClient& client() const { return services_.usb.client(); }
    /// Why nothing can be carried out any more; empty code if it can.
    Outcome obstacle() const;
    /// Carries a task of a request out, whatever it throws.
    void carry_out(const Running& running, void (Device::*task)(const Running&));
    /// Enters the request into the journal.
    /// @return false when it must not be carried out; it has been finished.
    bool begin(const Running& running);
    /// Makes one exchange, and counts it.
    Exchange exchange(const std::function<jovu_cli::Json()>& call);
    /// @return the code of a response; tells a device that has been unplugged.
    std::string code_of(JovuError code);

    // device_requests.cpp
    void run_call(const Running& running);
    void run_gcode(const Running& running);
    void run_control(const Running& running);
    Outcome control(const Running& running, Control control);
    Outcome change_job(const Running& running, Control control);
    void run_trace(const Running& running);
    void end_trace(const Outcome& end);
    void stray_trace(std::uint32_t servo);
    void flush_trace();
    std::vector<std::string> take_texts();

    // device_job.cpp
    void run_job(const Running& running);
    class Push;
    Outcome send_job(const Running& running, const JobRequest& request, std::FILE* file,
                     const StatusReport& before, const JovuPushCancel& cancel);
    StatusReport wait_accepted(const StatusReport& before);
    void follow(const StatusReport& report);
    /// The end of a request whose job goes on without the bridge: it has been carried out, so it is
    /// not carried out again.
    static Outcome left_to_device();
    void publish_job(const JobState& job);
    jovu_cli::Json job_json(const JobState& job) const;
    void note_job(const StatusReport& report);
    void job_progress(const Running& running, JobState job, bool force);

    // device.cpp
    void identify();
    void poll();
    /// Asks for a status report. The caller owns the job channel.
    /// @throws JovuException
    StatusReport request_status();
    void publish_status(const StatusReport& report);
    jovu_cli::Json status_object(const StatusReport& report) const;
    std::string topic(const char* leaf) const { return services_.topics.device(name_, leaf); }
    /// Waits, unless the device leaves or the bridge stops.
    /// @return whether it has waited.
    bool pause_for(Clock::duration time);

    Services& services_;
    const JovuDeviceAddress address_;
    const std::string name_;
    const std::string port_;
    const std::shared_ptr<std::atomic<std::uint64_t>> events_;

    std::atomic<bool> gone_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> abort_{false};      ///< The gcode or job in progress is to end.
    std::atomic<bool> pushing_{false};    ///< A job is about to be sent, or being sent.
    std::atomic<bool> preparing_{false};  ///< A job is being fetched, sent or verified.
    std::atomic<bool> polling_{false};    ///< A status report is asked for, or is to be.
    std::atomic<int> in_progress_{0};     ///< Requests that were taken and have not ended.
    std::atomic<int> waiting_{0};         ///< Of them, those that wait for requests_.
    std::atomic<int> controls_{0};        ///< Of them, those that wait for control_.

    /// Held while requests and reports, or a job, are on the job channel. Acquired with no other
    /// lock held.
    jovu_cli::Mutex job_channel_;

    /// A leaf.
    mutable jovu_cli::Mutex mutex_;
    std::condition_variable_any changed_;
    JovuPushCancel* push_ JOVU_GUARDED_BY(mutex_) = nullptr;  ///< Of the push in progress.
    bool collects_ JOVU_GUARDED_BY(mutex_) = false;
    std::vector<std::string> texts_ JOVU_GUARDED_BY(mutex_);  ///< Of the gcode line in progress.
    std::size_t text_bytes_ JOVU_GUARDED_BY(mutex_) = 0;      ///< Of all lines of that request.
    std::optional<Trace> trace_ JOVU_GUARDED_BY(mutex_);
    bool stray_ JOVU_GUARDED_BY(mutex_) = false;  ///< Samples without a trace are to be ended.
    Clock::time_point stray_time_ JOVU_GUARDED_BY(mutex_){};  ///< When that was ordered last.
    std::optional<Followed> followed_ JOVU_GUARDED_BY(mutex_);
    JobState job_ JOVU_GUARDED_BY(mutex_);
    std::string published_job_ JOVU_GUARDED_BY(mutex_);
    std::string last_status_ JOVU_GUARDED_BY(mutex_);  ///< Without what changes all the time.
    Clock::time_point status_time_ JOVU_GUARDED_BY(mutex_);
    bool has_identity_ JOVU_GUARDED_BY(mutex_) = false;
    std::string version_ JOVU_GUARDED_BY(mutex_);  ///< Of the firmware.
    Clock::time_point last_progress_;              ///< Of the thread requests_.

    std::atomic<Scheduler::Id> poll_timer_{0};
    std::atomic<Scheduler::Id> flush_timer_{0};
    std::atomic<Scheduler::Id> trace_timer_{0};

    Lane requests_;
    Lane control_;  ///< Last, as requests_: they use the members above.
};

}  // namespace jovu_bridge
