#include "report_text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>

#include "options.h"
#include "words.h"

namespace jovu_cli {
namespace {

constexpr std::size_t label_width = 14;

/// A string of a device, or a dash when the device left it out.
std::string shown(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::string job_text(const StatusReport& report) {
    if (report.file.empty() && report.job_id.empty()) {
        return "-";
    }
    std::string text = report.file;
    if (!report.job_id.empty()) {
        text += (text.empty() ? "id " : " (id ") + report.job_id;
        text += report.file.empty() ? "" : ")";
    }
    return text;
}

std::string error_text(const StatusReport& report) {
    return report.error == 0 ? "none" : std::to_string(report.error);
}

}  // namespace

JobPhase state_phase(const std::string& state) {
    struct Row {
        std::string_view word;
        JobPhase phase;
    };
    static constexpr Row rows[] = {
        {"error", JobPhase::error},       {"fault", JobPhase::error},
        {"fail", JobPhase::error},        {"abort", JobPhase::aborted},
        {"cancel", JobPhase::aborted},    {"finish", JobPhase::finished},
        {"complete", JobPhase::finished}, {"done", JobPhase::finished},
        {"receiv", JobPhase::receiving},  {"download", JobPhase::receiving},
        {"verif", JobPhase::receiving},   {"idle", JobPhase::idle},
        {"ready", JobPhase::idle},        {"paus", JobPhase::paused},
    };
    if (state.empty()) {
        return JobPhase::idle;
    }
    const std::string text = lower_case(state);
    for (const Row& row : rows) {
        if (text.find(row.word) != std::string::npos) {
            return row.phase;
        }
    }
    return JobPhase::active;
}

JobPhase job_phase(const StatusReport& report) {
    return report.error != 0 ? JobPhase::error : state_phase(report.state);
}

std::string describe_error(const StatusReport& report) {
    return "error " + error_text(report) + ", state " + shown(report.state);
}

Json identity_json(const StatusReport& report) {
    return {{"model_name", report.printer.model_name},
            {"cpu_id", report.printer.cpu_id},
            {"firmware_name", report.printer.firmware_name},
            {"firmware_version", report.printer.firmware_version},
            {"accept_version", report.printer.accept_version}};
}

Json to_json(JovuDeviceAddress address, const StatusReport& report) {
    return {{"device", to_string(address)},
            {"printer", identity_json(report)},
            {"state", report.state},
            {"build_plate", report.build_plate},
            {"filament", report.filament},
            {"extruder_temperature", report.extruder_temperature},
            {"job",
             {{"id", report.job_id},
              {"file", report.file},
              {"progress", report.progress},
              {"time_elapsed", report.time_elapsed}}},
            {"boot_time", report.boot_time},
            {"idle_time", report.idle_time},
            {"error", report.error}};
}

std::vector<std::string> identity_block(const StatusReport& report) {
    const auto& printer = report.printer;
    return {
        labelled("Model", shown(printer.model_name)),
        labelled("Processor", shown(printer.cpu_id)),
        labelled("Firmware", shown(printer.firmware_name) + " " + shown(printer.firmware_version)),
        labelled("Job version", std::to_string(printer.accept_version)),
    };
}

std::vector<std::string> report_block(JovuDeviceAddress address, const StatusReport& report) {
    return {
        labelled("Device", to_string(address)),
        labelled("Model", shown(report.printer.model_name)),
        labelled("Firmware", shown(report.printer.firmware_name) + " " +
                                 shown(report.printer.firmware_version)),
        labelled("State", shown(report.state)),
        labelled("Extruder", temperature_text(report.extruder_temperature)),
        labelled("Build plate", shown(report.build_plate)),
        labelled("Filament", shown(report.filament)),
        labelled("Job", job_text(report)),
        labelled("Progress", std::to_string(report.progress) + " %, " +
                                 duration_text(report.time_elapsed) + " elapsed"),
        labelled("Running",
                 duration_text(report.boot_time) + ", idle for " + duration_text(report.idle_time)),
        labelled("Error", error_text(report)),
    };
}

std::string report_line(JovuDeviceAddress address, const StatusReport& report) {
    std::string line = to_string(address) + "  " + shown(report.state) + "  " +
                       temperature_text(report.extruder_temperature) + "  " +
                       std::to_string(report.progress) + " %  " +
                       duration_text(report.time_elapsed) + "  job " + job_text(report);
    if (report.error != 0) {
        line += "  error " + std::to_string(report.error);
    }
    return line;
}

std::string labelled(const std::string& label, const std::string& value) {
    std::string line = label;
    line.resize(std::max(label_width, label.size() + 1), ' ');
    return line + value;
}

std::string duration_text(std::int64_t seconds) {
    const std::int64_t whole = std::max<std::int64_t>(seconds, 0);
    const std::int64_t hours = whole / 3600;
    const std::int64_t minutes = whole / 60 % 60;
    char text[40];
    if (hours > 0) {
        std::snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64 ":%02" PRId64, hours, minutes,
                      whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64, minutes, whole % 60);
    }
    return text;
}

std::string temperature_text(double celsius) {
    char text[40];
    std::snprintf(text, sizeof text, "%.1f C", std::clamp(celsius, -1e9, 1e9));
    return text;
}

}  // namespace jovu_cli
