// SPDX-License-Identifier: Apache-2.0
#include "monitor/view.h"

#include <algorithm>
#include <string>

#include "cli/options.h"
#include "progress/progress_bar.h"
#include "session/reports.h"
#include "terminal/format.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

using Controller = MonitorModel::Controller;
using Presence = MonitorModel::Presence;
using Time = MonitorModel::Time;

constexpr std::size_t kLinesOfController = 3;
constexpr std::size_t kAddressWidth = 9;
constexpr std::size_t kMaxSerialWidth = 20;
constexpr std::size_t kStateWidth = 27;
constexpr std::size_t kMaxFileWidth = 32;
constexpr const char* kIndent = "           ";

constexpr const char* kHelp[] = {
    "up, down   choose a controller",
    "p          pause the job of the chosen controller",
    "r          resume it",
    "a          abort it",
    "q          quit; so does Ctrl-C",
    "",
    "Each request is sent after the question has been answered with y.",
    "A request to pause or resume is sent if the next report shows that there is a job for it.",
    "",
    "Any key returns.",
};

/// @return the string, at most or exactly @p width characters wide.
std::string padded_to(std::string_view value, std::size_t width) {
    std::string cell = fit(printable(value), width);
    cell.append(width - character_count(cell), ' ');
    return cell;
}

std::string age(Time then, Time now) {
    return duration_string(std::chrono::duration_cast<std::chrono::seconds>(now - then).count());
}

Span state_span(const Controller& controller, Time now) {
    if (controller.presence == Presence::unplugged) {
        const std::string absence =
            controller.description ? controller.description->absence : std::string();
        return {(absence.empty() ? "unplugged" : "offline") +
                    (" " + age(controller.since, now) + " ago"),
                Style::warning};
    }
    if (controller.presence == Presence::not_open) {
        return {"not open", Style::bad};
    }
    if (const auto silence = controller.silence(now)) {
        return {"does not respond for " + duration_string(silence->count()), Style::bad};
    }
    if (!controller.report) {
        return {"connecting", Style::normal};
    }
    switch (job_phase(*controller.report)) {
        case JobPhase::error:
            return {describe_error(*controller.report), Style::bad};
        case JobPhase::paused:
            return {controller.report->state, Style::warning};
        case JobPhase::active:
        case JobPhase::receiving:
            return {controller.report->state, Style::good};
        default:
            return {controller.report->state.empty() ? "-" : controller.report->state,
                    Style::normal};
    }
}

/// @return the time until the job is finished, at the rate so far; empty when it is unknown.
std::string time_left(const StatusReport& report) {
    const JobPhase phase = job_phase(report);
    const bool runs = phase == JobPhase::active || phase == JobPhase::paused;
    if (!runs || report.progress <= 0 || report.progress >= 100 || report.time_elapsed <= 0) {
        return {};
    }
    return ", " +
           duration_string(std::int64_t{report.time_elapsed} * (100 - report.progress) /
                           report.progress) +
           " left";
}

std::string job_line(const Controller& controller, unsigned columns) {
    if (controller.presence == Presence::unplugged && controller.description) {
        return controller.description->absence;
    }
    if (!controller.obstacle.empty() || !controller.failure.empty()) {
        return controller.obstacle + controller.failure;
    }
    if (!controller.report) {
        return "";
    }
    const StatusReport& report = *controller.report;
    if (report.file.empty() && report.job_id.empty()) {
        return "no job";
    }
    const std::string name = report.file.empty() ? "job " + report.job_id : report.file;
    return bar_string(report.progress, fit(printable(name), kMaxFileWidth),
                      duration_string(report.time_elapsed) + " elapsed" + time_left(report),
                      columns);
}

void add_controller(std::vector<ScreenLine>& lines, const Controller& controller, bool selected,
                    std::size_t serial_width, ScreenSize size, Time now) {
    const bool current = controller.presence == Presence::connected && !controller.silence(now);
    const Style values = current ? Style::normal : Style::faint;
    const Span state = state_span(controller, now);
    const std::string place =
        controller.description ? controller.description->place : to_string(controller.address);
    ScreenLine head{{(selected ? "> " : "  ") + padded_to(place, kAddressWidth - 1) + " " +
                         padded_to(controller.serial.value_or(""), serial_width + 2),
                     selected ? Style::strong : Style::normal},
                    {padded_to(state.text, kStateWidth), state.style}};
    if (controller.report) {
        const std::string temperature = temperature_string(controller.report->extruder_temperature);
        const std::size_t used = 2 + kAddressWidth + serial_width + 2 + kStateWidth + 9 + 2;
        const std::size_t left = size.columns > used ? size.columns - used : 0;
        head.push_back({std::string(temperature.size() < 9 ? 9 - temperature.size() : 0, ' ') +
                            temperature + "  " + controller.temperatures.curve(left, now),
                        values});
    }
    lines.push_back(std::move(head));
    const unsigned indent = static_cast<unsigned>(std::string_view(kIndent).size());
    lines.push_back(
        {{kIndent + job_line(controller, size.columns > indent ? size.columns - indent : 0),
          values}});
    lines.push_back({{kIndent + (controller.event_time ? age(*controller.event_time, now) +
                                                             " ago: " + controller.event
                                                       : std::string("no event")),
                      Style::faint}});
}

std::string hidden_line(std::size_t above, std::size_t below) {
    std::string line;
    for (const auto& [count, where] : {std::pair(above, " above"), {below, " below"}}) {
        if (count > 0) {
            line += (line.empty() ? "" : " and ") + std::to_string(count) + where;
        }
    }
    return line.empty() ? line : "not shown: " + line;
}

std::vector<ScreenLine> controller_lines(const MonitorModel& model, ScreenSize size,
                                         std::size_t rows, Time now) {
    const std::vector<Controller>& all = model.controllers();
    if (all.empty()) {
        const auto chosen = model.chosen();
        return {{{"  waiting for " + (chosen ? to_string(*chosen) : "a controller")}}};
    }
    // The row below the controllers is for the number of hidden ones.
    const std::size_t fitting = std::clamp<std::size_t>(
        (std::max<std::size_t>(rows, 1) - 1) / kLinesOfController, 1, all.size());
    const std::size_t first = std::min(model.selected() / fitting * fitting, all.size() - fitting);
    std::size_t serial_width = 0;
    for (const Controller& controller : all) {
        const std::size_t width = character_count(printable(controller.serial.value_or("")));
        serial_width = std::max(serial_width, std::min(width, kMaxSerialWidth));
    }
    std::vector<ScreenLine> lines;
    for (std::size_t i = first; i < first + fitting; ++i) {
        add_controller(lines, all[i], i == model.selected(), serial_width, size, now);
    }
    lines.resize(std::min<std::size_t>(lines.size(), rows > 0 ? rows - 1 : 0));
    lines.push_back({{"  " + hidden_line(first, all.size() - first - fitting), Style::warning}});
    return lines;
}

ScreenLine last_line(const MonitorModel& model, Time now) {
    if (const std::string question = model.question(); !question.empty()) {
        return {{question, Style::warning}};
    }
    if (const std::string message = model.message(now); !message.empty()) {
        return {{message, Style::strong}};
    }
    return {{"up/down choose   p pause   r resume   a abort   ? help   q quit", Style::faint}};
}

}  // namespace

std::vector<ScreenLine> monitor_lines(const MonitorModel& model, ScreenSize size, Time now) {
    const std::size_t rows = size.rows;
    std::vector<ScreenLine> lines;
    if (model.shows_help()) {
        for (const char* const line : kHelp) {
            lines.push_back({{line}});
        }
    } else {
        lines = controller_lines(model, size, rows > 0 ? rows - 1 : 0, now);
    }
    lines.resize(rows > 0 ? rows - 1 : 0);
    if (rows > 0) {
        lines.push_back(last_line(model, now));
    }
    return lines;
}

}  // namespace jovu_cli
