// SPDX-License-Identifier: Apache-2.0
#include "progress/progress_reporters.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "cli/failure.h"
#include "cli/options.h"
#include "session/device_names.h"
#include "session/reports.h"
#include "terminal/format.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

std::string whole_percent(double percent) {
    return std::to_string(static_cast<int>(percent)) + " %";
}

std::string printing_tail(const StatusReport& report) {
    return printable(report.state) + "  " + temperature_string(report.extruder_temperature) + "  " +
           duration_string(report.time_elapsed);
}

}  // namespace

PushReporter::PushReporter(Output& out, JovuDeviceAddress device, const std::string& file,
                           std::uint64_t size)
    : out_(out), device_(device), file_(printable(file)), size_(size) {
    if (out_.redraws() && !out_.quiet()) {
        bar_.emplace(out_);
    }
}

void PushReporter::sending(double percent, std::uint64_t sent, bool filler) {
    if (out_.quiet()) {
        return;
    }
    meter_.add(RateMeter::Clock::now(), sent);
    if (bar_) {
        bar_->draw(percent, filler ? "Filling " : "Sending ",
                   transfer_string(meter_.rate(), sent, size_), percent >= 100);
        return;
    }
    if (!sent_tenths_.reached(percent)) {
        return;
    }
    if (out_.json()) {
        Json object = {{"event", filler ? "filling" : "sending"}};
        object.update(device_json(device_));
        object.update({{"percent", percent}, {"bytes", sent}, {"size", size_}});
        out_.object(object);
    } else {
        out_.line((filler ? "filling " : "sending ") + file_ + ": " + whole_percent(percent) +
                  ", " + std::to_string(sent) + " of " + std::to_string(size_) + " bytes");
    }
}

void PushReporter::accepted(const StatusReport& report) {
    if (out_.json()) {
        object("accepted", report);
        return;
    }
    end_bar();
    out_.line("accepted by " + device_name(device_) + ": job " + printable(report.job_id) + ", " +
              printable(report.state));
    last_state_ = report.state;
}

void PushReporter::printing(const StatusReport& report) {
    const double percent = report.progress;
    if (out_.quiet()) {
        return;
    }
    if (out_.json()) {
        object("job", report);
        return;
    }
    const std::string state = printing_tail(report);
    if (bar_) {
        bar_->draw(percent, "Printing", state, true);
    } else if (printed_tenths_.reached(percent) || report.state != last_state_) {
        out_.line("job " + whole_percent(percent) + ": " + state);
    }
    last_state_ = report.state;
}

void PushReporter::finished(const StatusReport& report) {
    if (out_.json()) {
        object("finished", report);
        return;
    }
    if (bar_) {
        bar_->draw(100, "Printing", printing_tail(report), true);
    }
    end_bar();
    out_.line("finished after " + duration_string(report.time_elapsed) + ": job " +
              printable(report.job_id));
}

void PushReporter::end_bar() {
    if (bar_) {
        bar_->finish();
    }
}

void PushReporter::object(const char* event, const StatusReport& report) {
    Json object = {{"event", event}};
    object.update(to_json(device_, report));
    out_.object(object);
}

void UpdateReporter::step(const char* event, const std::string& serial, const std::string& line) {
    if (out_.quiet()) {
        return;
    }
    if (out_.json()) {
        out_.object({{"event", event}, {"serial", serial}});
    } else {
        out_.line(printable(line));
    }
}

void UpdateReporter::downloading(const std::string& serial, double percent) noexcept {
    if (output_failure_ || out_.quiet()) {
        return;
    }
    try {
        if (bar_) {
            bar_->draw(percent, "Downloading", "", percent >= 100);
            return;
        }
        if (!tenths_.reached(percent)) {
            return;
        }
        if (out_.json()) {
            out_.object({{"event", "downloading"}, {"serial", serial}, {"percent", percent}});
        } else {
            out_.line("downloading: " + std::to_string(static_cast<int>(percent)) + " %");
        }
    } catch (...) {
        output_failure_ = std::current_exception();  // end_download() throws it again.
    }
}

void UpdateReporter::end_download() {
    if (output_failure_) {
        std::rethrow_exception(output_failure_);
    }
    if (bar_) {
        bar_->finish();
    }
}

void UpdateReporter::done(const std::string& device, const std::string& serial,
                          const std::string& before, const std::string& now) {
    const std::string event = before == now ? "written" : "updated";
    if (out_.json()) {
        out_.object({{"event", event},
                     {"device", device},
                     {"serial", serial},
                     {"version_before", before.empty() ? Json() : Json(before)},
                     {"version", now}});
        return;
    }
    const std::string change = before.empty()  ? ""
                               : before == now ? ", as before"
                                               : ", before it was " + before;
    out_.line(event + ": " + device + " runs version " + printable(now + change));
}

}  // namespace jovu_cli
