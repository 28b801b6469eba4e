// SPDX-License-Identifier: Apache-2.0

/// @file
/// Jobs: fetched, sent, verified, followed.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "bridge/device.h"
#include "terminal/format.h"

namespace jovu_bridge {

using namespace std::chrono_literals;
using jovu_cli::JobPhase;
using jovu_cli::Json;
using jovu_cli::MutexLock;

namespace {

/// How long a device may take to verify a job and to show it in its reports.
constexpr auto kAcceptLimit = 10s;
constexpr auto kAcceptPoll = 200ms;
/// The shortest time between two reports of progress.
constexpr auto kProgressPeriod = 250ms;

const char* phase_name(JobPhase phase) {
    switch (phase) {
        case JobPhase::idle:
            return "idle";
        case JobPhase::receiving:
            return "verifying";
        case JobPhase::active:
            return "active";
        case JobPhase::paused:
            return "paused";
        case JobPhase::finished:
            return "finished";
        case JobPhase::aborted:
            return "aborted";
        case JobPhase::error:
            return "error";
    }
    return "error";
}

bool has_job(const StatusReport& report) {
    const JobPhase phase = jovu_cli::state_phase(report.state);
    return phase == JobPhase::active || phase == JobPhase::paused || phase == JobPhase::receiving;
}

/// Whether a report shows another job than the report before the push.
bool shows_new_job(const StatusReport& before, const StatusReport& now) {
    const JobPhase phase = jovu_cli::state_phase(now.state);
    return now.job_id != before.job_id || now.file != before.file || phase == JobPhase::active ||
           phase == JobPhase::paused;
}

/// True for as long as it exists.
class Raised {
public:
    explicit Raised(std::atomic<bool>& flag) : flag_(flag) { flag_ = true; }
    ~Raised() { flag_ = false; }
    Raised(const Raised&) = delete;
    Raised& operator=(const Raised&) = delete;

private:
    std::atomic<bool>& flag_;
};

/// The device does not do what was asked of it.
struct JobRefused {
    std::string message;
};

JobLimits limits_of(const Config::Jobs& jobs) {
    JobLimits limits;
    limits.folders = jobs.folders;
    limits.ca_file = jobs.ca_file;
    limits.max_size = jobs.max_size;
    limits.keep_free = jobs.keep_free;
    limits.connect_timeout = jobs.connect_timeout;
    limits.stall_timeout = jobs.stall_timeout;
    return limits;
}

}  // namespace

/// Tells the control thread of a push, which takes the job channel.
class Device::Push {
public:
    Push(Device& device, JovuPushCancel& cancel) : device_(device) {
        device_.pushing_ = true;
        const MutexLock lock(device_.mutex_);
        device_.push_ = &cancel;
    }
    ~Push() {
        device_.pushing_ = false;
        const MutexLock lock(device_.mutex_);
        device_.push_ = nullptr;
    }
    Push(const Push&) = delete;
    Push& operator=(const Push&) = delete;

private:
    Device& device_;
};

Json Device::job_json(const JobState& job) const {
    return {{"id", job.request.empty() ? Json() : Json(job.request)},
            {"job_id", job.job_id},
            {"file", job.file},
            {"phase", job.phase},
            {"percent", job.percent},
            {"sent", job.sent},
            {"total", job.total}};
}

void Device::publish_job(const JobState& job) {
    Json object = job_json(job);
    const std::string essence = to_payload(object);
    {
        const MutexLock lock(mutex_);
        job_ = job;
        if (published_job_ == essence) {
            return;
        }
        published_job_ = essence;
    }
    object["time"] = jovu_cli::utc_string(std::chrono::system_clock::now());
    services_.outbox.state(topic("job"), to_payload(object));
    services_.metrics.job(name_, job.phase, job.percent);
}

void Device::job_progress(const Running& running, JobState job, bool force) {
    const auto now = Clock::now();
    if (!force && now - last_progress_ < kProgressPeriod) {
        return;
    }
    last_progress_ = now;
    publish_job(job);
    services_.requests.progress(*running, job_json(job));
}

void Device::note_job(const StatusReport& report) {
    if (preparing_) {
        return;
    }
    JobState job;
    {
        const MutexLock lock(mutex_);
        job = job_;
    }
    if (!job.request.empty() && (job.job_id != report.job_id || job.file != report.file)) {
        job = {};  // Another job than the one that came through the bridge.
    }
    job.job_id = report.job_id;
    job.file = report.file;
    job.phase = phase_name(jovu_cli::job_phase(report));
    job.percent = report.progress;
    publish_job(job);
}

void Device::run_job(const Running& running) {
    const auto& request = std::get<JobRequest>(running->request.content);
    {
        const MutexLock lock(mutex_);
        abort_ = stopping_.load() || gone_.load();
    }
    Outcome problem = obstacle();
    if (problem.code.empty() && running->expired()) {
        problem = Outcome::failed("expired", "the request expired before its turn came");
    }
    if (!problem.code.empty()) {
        services_.requests.finish(*running, problem);
        return;
    }
    services_.requests.accepted(*running);
    JobState shown;
    {
        const MutexLock lock(mutex_);
        shown = job_;
    }
    bool busy = false;
    JobState job;
    job.request = running->request.id;
    job.file = request.name;
    job.phase = "fetching";
    job.total = request.reference.size;
    Outcome outcome;
    JovuPushCancel cancel;
    try {
        const Raised preparing(preparing_);
        job_progress(running, job, true);
        std::uint64_t fetched = 0;
        const File file = services_.jobs.fetch(
            request.reference, limits_of(services_.settings.get()->jobs),
            [&](std::uint64_t received) {
                services_.metrics.job_bytes_fetched(received - fetched);
                fetched = received;
                job.sent = 0;
                job.percent = job.total == 0 ? 0
                                             : 100 * static_cast<double>(received) /
                                                   static_cast<double>(job.total);
                job_progress(running, job, false);
                return !abort_;
            });
        const Push push(*this, cancel);
        const MutexLock channel(job_channel_);
        const StatusReport before = request_status();
        follow(before);  // The job before may have ended since the last report.
        if (has_job(before)) {
            busy = true;
            throw JobRefused{"busy with another job: " + before.state + ", " +
                             std::to_string(before.progress) + " %; nothing was sent"};
        }
        outcome = send_job(running, request, file.get(), before, cancel);
    } catch (const FetchFailure& failure) {
        outcome = Outcome::failed(failure.code(), failure.what());
        if (gone_ || stopping_) {
            outcome = obstacle();
        }
    } catch (const JobRefused& refused) {
        outcome = Outcome::failed("refused", refused.message);
    } catch (const JovuException& error) {
        outcome = Outcome::failed(code_of(error.code()), error.what());
    } catch (const JournalError& error) {
        services_.log.error(error.what());
        outcome = Outcome::failed("unavailable", error.what());
    }
    if (outcome.code.empty() && outcome.result.is_null()) {
        return;  // Followed.
    }
    services_.metrics.job_ended(outcome.code);
    if (busy) {
        publish_job(shown);  // The device has that job still.
    } else if (!outcome.code.empty()) {
        {
            const MutexLock lock(mutex_);
            job = job_;
        }
        job.phase = outcome.code == "cancelled" ? "aborted" : "error";
        publish_job(job);
    }
    services_.requests.finish(*running, outcome);
}

/// Sends the file and waits until the device shows the job.
/// @return null as the result when the requester waits for the end of the job.
Outcome Device::send_job(const Running& running, const JobRequest& request, std::FILE* file,
                         const StatusReport& before, const JovuPushCancel& cancel) {
    if (abort_) {
        return Outcome::failed("cancelled", "ended before anything was sent");
    }
    services_.requests.begin(*running);
    JobState job;
    job.request = running->request.id;
    job.file = request.name;
    job.total = request.reference.size;
    job.phase = "sending";
    job_progress(running, job, true);
    const auto begun = Clock::now();
    std::uint64_t counted = 0;
    const JovuPushResult result = client().SendJobFile(
        address_, "/proc/self/fd/" + std::to_string(::fileno(file)),
        [&](const JovuPushProgress& progress) {
            services_.metrics.job_bytes_sent(name_, progress.sent - counted);
            counted = progress.sent;
            job.sent = progress.sent;
            job.percent = progress.percent;
            job_progress(running, job, false);
        },
        cancel);
    services_.metrics.exchange(name_, Clock::now() - begun, "");
    if (result != JovuPushResult::completed) {
        return Outcome::failed(
            result == JovuPushResult::cancelled ? "cancelled" : "file_unreadable",
            "the device received filler for the rest of the job and refuses it by its checksum");
    }
    job.phase = "verifying";
    job.percent = 100;
    job_progress(running, job, true);
    const StatusReport accepted = wait_accepted(before);
    job.job_id = accepted.job_id;
    job.file = accepted.file;
    job.phase = phase_name(jovu_cli::job_phase(accepted));
    job.percent = accepted.progress;
    job_progress(running, job, true);
    if (!request.wait) {
        return Outcome::done(job_json(job));
    }
    {
        const MutexLock lock(mutex_);
        if (stopping_) {
            return left_to_device();
        }
        followed_ = Followed{running, accepted.job_id, accepted.file};
    }
    ++in_progress_;  // Until the end of the job.
    follow(accepted);
    return {};
}

/// An error from before the push counts only when it lasts until the deadline.
StatusReport Device::wait_accepted(const StatusReport& before) {
    const auto deadline = Clock::now() + kAcceptLimit;
    for (;;) {
        StatusReport now = request_status();
        const JobPhase phase = jovu_cli::job_phase(now);
        const bool is_new = shows_new_job(before, now);
        const bool late = Clock::now() >= deadline;
        if (phase == JobPhase::error && (is_new || now.error != before.error || late)) {
            throw JobRefused{"the device refused the job: " + jovu_cli::describe_error(now)};
        }
        if (is_new && phase != JobPhase::error && phase != JobPhase::receiving) {
            return now;
        }
        if (late) {
            throw JobRefused{"the device does not show the job: " + jovu_cli::describe_error(now)};
        }
        if (!pause_for(kAcceptPoll)) {
            std::this_thread::sleep_for(kAcceptPoll);  // The bridge stops; the job has been sent.
        }
    }
}

Outcome Device::left_to_device() {
    return Outcome::failed("outcome_unknown",
                           "the bridge has stopped; the device had accepted the job and goes on");
}

void Device::follow(const StatusReport& report) {
    std::optional<Followed> followed;
    {
        const MutexLock lock(mutex_);
        if (!followed_) {
            return;
        }
        followed = followed_;
    }
    // The job topic may show the next job already.
    const auto& request = std::get<JobRequest>(followed->running->request.content);
    JobState job;
    job.request = followed->running->request.id;
    job.job_id = report.job_id;
    job.file = report.file;
    job.phase = phase_name(jovu_cli::job_phase(report));
    job.percent = report.progress;
    job.sent = job.total = request.reference.size;
    const bool same = report.job_id == followed->job_id && report.file == followed->file;
    const JobPhase phase = jovu_cli::job_phase(report);
    const std::string at = std::to_string(report.progress) + " %";
    Outcome outcome = Outcome::done(job_json(job));
    if (!same) {
        outcome = Outcome::failed("refused", "the device has another job: " + report.job_id);
    } else if (phase == JobPhase::error) {
        outcome = Outcome::failed(
            "refused", "the device did not finish the job: " + jovu_cli::describe_error(report));
    } else if (phase == JobPhase::aborted) {
        outcome = Outcome::failed("refused", "the job was aborted at " + at);
    } else if (phase == JobPhase::idle && report.progress < 100) {
        outcome = Outcome::failed("refused", "the job ended early, at " + at);
    } else if (phase != JobPhase::finished && phase != JobPhase::idle) {
        services_.requests.progress(*followed->running, job_json(job));
        return;
    }
    {
        const MutexLock lock(mutex_);
        if (!followed_) {
            return;
        }
        followed_.reset();
    }
    services_.metrics.job_ended(outcome.code);
    services_.requests.finish(*followed->running, outcome);
    --in_progress_;
}

}  // namespace jovu_bridge
