#include "update_reporter.h"

#include <nlohmann/json.hpp>

#include "failure.h"
#include "printable.h"

namespace jovu_cli {

void UpdateReporter::step(const char* event, const std::string& serial, const std::string& text) {
    if (out_.json()) {
        out_.object({{"event", event}, {"serial", serial}});
    } else {
        out_.line(printable(text));
    }
}

void UpdateReporter::downloading(const std::string& serial, double percent) noexcept {
    if (output_failure_) {
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
