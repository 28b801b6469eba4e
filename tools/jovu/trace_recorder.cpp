#include "trace_recorder.h"

#include <cinttypes>
#include <cstdio>

namespace jovu_cli {
namespace {

constexpr const char* csv_header =
    "int_cnt,time_s,servo_name,servo_state,pos_cmd,pos,pwm,padout_dist\n";

std::string csv_row(const servo_trace_msg& sample, std::uint64_t ticks) {
    char row[160];
    const int length =
        std::snprintf(row, sizeof row, "%u,%s,%d,%d,%d,%d,%d,%d\n", sample.int_cnt,
                      tick_text(ticks).c_str(), sample.servo_name, sample.servo_state,
                      sample.pos_cmd, sample.pos, sample.pwm, sample.padout_dist);
    return {row, static_cast<std::size_t>(length)};
}

}  // namespace

std::string tick_text(std::uint64_t ticks) {
    char text[40];
    std::snprintf(text, sizeof text, "%" PRIu64 ".%03u", ticks / trace_rate,
                  static_cast<unsigned>(ticks % trace_rate * 1000 / trace_rate));
    return text;
}

TraceRecorder::TraceRecorder(std::int16_t servo, const std::string& csv, const std::string& plot)
    : servo_(servo) {
    if (!plot.empty()) {
        plot_.emplace();
        image_.emplace(plot, SafeFile::Unfinished::remove);
    }
    if (!csv.empty()) {
        csv_.emplace(csv, SafeFile::Unfinished::keep);
    }
}

void TraceRecorder::add(const servo_trace_msg& sample) {
    if (sample.servo_name != servo_) {
        return;
    }
    if (csv_ && statistics_.samples() == 0) {
        csv_->write(csv_header);
    }
    const bool follows = statistics_.add(sample);
    if (csv_) {
        csv_->write(csv_row(sample, statistics_.ticks()));
    }
    if (plot_) {
        plot_->add(sample, statistics_.ticks(), follows);
    }
}

void TraceRecorder::finish(const TracePlot::Title& title) {
    // The samples first: a drawing can be made again.
    if (csv_) {
        csv_->finish();
    }
    if (plot_) {
        plot_->draw(title, image_->fd());
        image_->finish();
    }
}

std::string TraceRecorder::unfinished_path() const {
    return csv_ && statistics_.samples() > 0 ? csv_->unfinished_path() : "";
}

}  // namespace jovu_cli
