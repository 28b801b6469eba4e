#include "push_reporter.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "options.h"
#include "printable.h"
#include "report_text.h"

namespace jovu_cli {
namespace {

std::string whole_percent(double percent) {
    return std::to_string(static_cast<int>(percent)) + " %";
}

std::string printing_tail(const StatusReport& report) {
    return printable(report.state) + "  " + temperature_text(report.extruder_temperature) + "  " +
           duration_text(report.time_elapsed);
}

}  // namespace

bool Tenths::reached(double percent) {
    const int tenth = static_cast<int>(std::floor(percent / 10));
    if (tenth <= last_) {
        return false;
    }
    last_ = tenth;
    return true;
}

PushReporter::PushReporter(Output& out, JovuDeviceAddress device, const std::string& file,
                           std::uint64_t size)
    : out_(out), device_(device), file_(printable(file)), size_(size) {
    if (out_.redraws()) {
        bar_.emplace(out_);
    }
}

void PushReporter::sending(double percent, std::uint64_t sent, bool filler) {
    meter_.add(RateMeter::Clock::now(), sent);
    if (bar_) {
        bar_->draw(percent, filler ? "Filling " : "Sending ",
                   transfer_text(meter_.rate(), sent, size_), percent >= 100);
        return;
    }
    if (!sent_tenths_.reached(percent)) {
        return;
    }
    if (out_.json()) {
        out_.object({{"event", filler ? "filling" : "sending"},
                     {"device", to_string(device_)},
                     {"percent", percent},
                     {"bytes", sent},
                     {"size", size_}});
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
    out_.line("accepted by " + to_string(device_) + ": job " + printable(report.job_id) + ", " +
              printable(report.state));
    last_state_ = report.state;
}

void PushReporter::printing(const StatusReport& report) {
    const double percent = report.progress;
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
    out_.line("finished after " + duration_text(report.time_elapsed) + ": job " +
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

}  // namespace jovu_cli
