// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/print_job.h"

#include <algorithm>

namespace jovusim {

namespace {
constexpr double kJobSeconds = 4.0;
constexpr double kPrintCelsius = 210.0;
}  // namespace

const char* to_string(JobState state) {
    switch (state) {
        case JobState::idle:
            return "idle";
        case JobState::receiving:
            return "receiving";
        case JobState::printing:
            return "printing";
        case JobState::paused:
            return "paused";
        case JobState::finished:
            return "finished";
        case JobState::aborted:
            return "aborted";
        case JobState::error:
            return "error";
    }
    return "unknown";
}

void PrintJob::announce(const std::string& id) {
    ++announced_;
    const std::string number = std::to_string(announced_);
    id_ = id.empty() ? "job-" + number : id;
    file_ = "push-" + number + ".gcode";
    elapsed_ = 0;
    state_ = JobState::receiving;
}

void PrintJob::start() {
    state_ = JobState::printing;
    error_ = JobError::none;
}

void PrintJob::toggle_pause() {
    if (!running()) return;
    state_ = state_ == JobState::paused ? JobState::printing : JobState::paused;
}

void PrintJob::abort() {
    if (!running()) return;
    state_ = JobState::aborted;
    error_ = JobError::none;
}

void PrintJob::fail(JobError error) {
    error_ = error;
    if (!running()) state_ = JobState::error;
}

void PrintJob::advance(double seconds) {
    if (state_ != JobState::printing) return;
    elapsed_ = std::min(elapsed_ + seconds, kJobSeconds);
    if (elapsed_ >= kJobSeconds) {
        state_ = JobState::finished;
        ++finished_;
    }
}

int PrintJob::progress() const {
    return static_cast<int>(elapsed_ / kJobSeconds * 100.0);
}

int PrintJob::elapsed_seconds() const {
    return static_cast<int>(elapsed_);
}

double PrintJob::temperature_wanted() const {
    return running() ? kPrintCelsius : 0.0;
}

}  // namespace jovusim
