// SPDX-License-Identifier: Apache-2.0
#include "trace/trace_recorder.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "cli/failure.h"
#include "posix/child_process.h"
#include "posix/files.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kDrawingLimit = 120s;
/// More points, dozens in each column of the image, are not visible.
constexpr std::uint64_t kMaxPoints = 100'000;

/// The descriptor that gnuplot reads the samples from, once for each curve.
constexpr int kDataDescriptor = 3;

[[noreturn]] void throw_data_problem() {
    throw Failure(ExitCode::file_problem, "cannot keep the samples for the plot: " +
                                              std::generic_category().message(errno));
}

/// @return a string in gnuplot's quotes.
std::string quoted(const std::string& value) {
    std::string result = "'";
    for (const char c : value) {
        result += c == '\'' ? "''" : std::string(1, c);
    }
    return result + "'";
}

/// @return the range of an axis, with a margin; never empty.
std::string axis_range(const Range& range) {
    const auto lowest = static_cast<double>(range.lowest);
    const auto highest = static_cast<double>(range.highest);
    const double room = std::max((highest - lowest) * 0.08, 1.0);
    return "[" + std::to_string(std::llround(std::floor(lowest - room))) + ":" +
           std::to_string(std::llround(std::ceil(highest + room))) + "]\n";
}

FileDescriptor script_file(const std::string& script) {
    FileDescriptor file(memfd_create("jovu-plot", MFD_CLOEXEC));
    if (!file.valid() ||
        write(file.get(), script.data(), script.size()) != static_cast<ssize_t>(script.size()) ||
        lseek(file.get(), 0, SEEK_SET) != 0) {
        throw_data_problem();
    }
    return file;
}

constexpr const char* kCsvHeader =
    "int_cnt,time_s,servo_name,servo_state,pos_cmd,pos,pwm,padout_dist\n";

std::string csv_row(const servo_trace_msg& sample, std::uint64_t ticks) {
    char row[160];
    const int length =
        std::snprintf(row, sizeof row, "%u,%s,%d,%d,%d,%d,%d,%d\n", sample.int_cnt,
                      tick_string(ticks).c_str(), sample.servo_name, sample.servo_state,
                      sample.pos_cmd, sample.pos, sample.pwm, sample.padout_dist);
    return {row, static_cast<std::size_t>(length)};
}

}  // namespace

void Range::add(std::int64_t value) {
    lowest = std::min(lowest, value);
    highest = std::max(highest, value);
}

std::int64_t following_error(const servo_trace_msg& sample) {
    return std::int64_t{sample.pos_cmd} - sample.pos;
}

bool TraceStatistics::add(const servo_trace_msg& sample) {
    const bool follows = samples_ == 0 || advance(sample.int_cnt);
    last_count_ = sample.int_cnt;
    ++samples_;
    position_.add(sample.pos);
    pwm_.add(sample.pwm);
    const std::int64_t error = following_error(sample);
    if (std::abs(error) > std::abs(largest_error_)) {
        largest_error_ = error;
        largest_error_ticks_ = ticks_;
    }
    return follows;
}

bool TraceStatistics::advance(std::uint32_t count) {
    // The count wraps. A step of more than half its range, 24 days, is a step back.
    const std::uint32_t step = count - last_count_;
    if (step == 0 || step > std::numeric_limits<std::uint32_t>::max() / 2) {
        ++restarts_;
        ++ticks_;
        return false;
    }
    ticks_ += step;
    if (step == 1) {
        return true;
    }
    ++gaps_;
    missing_ += step - 1;
    return false;
}

std::string tick_string(std::uint64_t ticks) {
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%" PRIu64 ".%03u", ticks / kTraceRate,
                  static_cast<unsigned>(ticks % kTraceRate * 1000 / kTraceRate));
    return buffer;
}

TracePlot::TracePlot() {
    const std::optional<std::string> gnuplot = find_program("gnuplot");
    if (!gnuplot) {
        throw Failure(ExitCode::failure, "--plot needs gnuplot, which is not installed",
                      "Debian's package is gnuplot-nox");
    }
    gnuplot_ = *gnuplot;
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): data_ is the owner.
    data_.reset(std::tmpfile());
    if (!data_) {
        throw_data_problem();
    }
}

void TracePlot::add(const servo_trace_msg& sample, std::uint64_t ticks, bool follows) {
    const std::int64_t error = following_error(sample);
    // gnuplot interrupts the curves at an empty line.
    const int written =
        std::fprintf(data_.get(), "%s%s %d %d %" PRId64 " %d\n", follows ? "" : "\n",
                     tick_string(ticks).c_str(), sample.pos_cmd, sample.pos, error, sample.pwm);
    if (written < 0) {
        throw_data_problem();
    }
    ++samples_;
    last_ticks_ = ticks;
    position_.add(sample.pos);
    position_.add(sample.pos_cmd);
    error_.add(error);
    pwm_.add(sample.pwm);
}

void TracePlot::draw(const Title& title, int output) {
    if (std::fflush(data_.get()) != 0) {
        throw_data_problem();
    }
    const FileDescriptor commands = script_file(script(title));
    // This order does not replace a descriptor that is still needed.
    const int status = run_program(gnuplot_, {"-d"},
                                   {{commands.get(), STDIN_FILENO},
                                    {output, STDOUT_FILENO},
                                    {fileno(data_.get()), kDataDescriptor}},
                                   kDrawingLimit);
    if (status != 0) {
        throw Failure(ExitCode::failure,
                      "gnuplot failed with exit status " + std::to_string(status));
    }
}

std::string TracePlot::script(const Title& title) const {
    const std::string data = "'/dev/fd/" + std::to_string(kDataDescriptor) + "'";
    const std::string every =
        " every " + std::to_string(std::max<std::uint64_t>(1, samples_ / kMaxPoints)) + " ";
    const std::string seconds =
        std::to_string(std::max<double>(static_cast<double>(last_ticks_) / kTraceRate, 0.01));
    const auto label = [](const char* text, double height) {
        return "set label 3 '" + std::string(text) + "' at screen 0.02, screen " +
               std::to_string(height) + " center rotate\n";
    };
    const auto zero_line = "plot 0 lc rgb '#a0a0a0' lw 1 notitle, " + data + every;
    return "set terminal pngcairo noenhanced size 1400,1000 font 'sans,12' linewidth 1.4\n"
           "set encoding utf8\n"
           "set multiplot\n"
           "set border 3 lc rgb '#808080'\n"
           "set tics nomirror out textcolor rgb '#303030'\n"
           "set grid lc rgb '#e4e4e4' lt 1 lw 0.7\n"
           "set key horizontal Left reverse samplen 2 width 2\n"
           "set key at graph 1, graph 1.06 right bottom\n"
           "set lmargin at screen 0.085\n"
           "set rmargin at screen 0.975\n"
           "set style fill transparent solid 0.25 noborder\n"
           "set xrange [0:" +
           seconds +
           "]\n"
           // Position, with the title of the whole above it.
           "set tmargin at screen 0.88\n"
           "set bmargin at screen 0.53\n"
           "set label 1 " +
           quoted(title.heading) + " at screen 0.085, screen 0.965 left font 'sans,17'\n" +
           "set label 2 " + quoted(title.details) +
           " at screen 0.085, screen 0.933 left textcolor rgb '#606060'\n" +
           label("Position (native units)", 0.705) + "set format x ''\n" + "set yrange " +
           axis_range(position_) + "plot " + data + every +
           "using 1:2 with lines lw 4 lc rgb '#f4a259' title 'commanded', " + data + every +
           "using 1:3 with lines lw 1.3 lc rgb '#1d4e89' title 'actual'\n"
           "unset label\n" +
           // Following error.
           "set tmargin at screen 0.485\n"
           "set bmargin at screen 0.305\n" +
           label("Following error", 0.395) + "set yrange " + axis_range(error_) + zero_line +
           "using 1:4 with filledcurves y=0 lc rgb '#b3261e' notitle, " + data + every +
           "using 1:4 with lines lw 1 lc rgb '#b3261e' title 'commanded - actual'\n" +
           // PWM.
           "set tmargin at screen 0.26\n"
           "set bmargin at screen 0.08\n" +
           label("PWM", 0.17) +
           "set format x\n"
           "set xlabel 'Time (s)'\n" +
           "set yrange " + axis_range(pwm_) + zero_line +
           "using 1:5 with filledcurves y=0 lc rgb '#2e7d4f' notitle, " + data + every +
           "using 1:5 with lines lw 1 lc rgb '#2e7d4f' title 'duty'\n"
           "unset multiplot\n"
           "set output\n";
}

TraceRecorder::TraceRecorder(std::int16_t servo, const std::string& csv, const std::string& plot)
    : servo_(servo) {
    if (!plot.empty()) {
        plot_.emplace();
        image_.emplace(plot, AtomicFile::Unfinished::remove);
    }
    if (!csv.empty()) {
        csv_.emplace(csv, AtomicFile::Unfinished::keep);
    }
}

void TraceRecorder::add(const servo_trace_msg& sample) {
    if (sample.servo_name != servo_) {
        return;
    }
    if (csv_ && statistics_.samples() == 0) {
        csv_->write(kCsvHeader);
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
    // The samples first: the drawing can be repeated.
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
