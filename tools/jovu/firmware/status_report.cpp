// SPDX-License-Identifier: Apache-2.0
#include "firmware/status_report.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "cli/suggestions.h"

namespace jovu_cli {

JobPhase state_phase(const std::string& state) {
    struct Row {
        std::string_view part;
        JobPhase phase;
    };
    static constexpr Row kRows[] = {
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
    const std::string name = lower_case(state);
    for (const Row& row : kRows) {
        if (name.find(row.part) != std::string::npos) {
            return row.phase;
        }
    }
    return JobPhase::active;
}

JobPhase job_phase(const StatusReport& report) {
    return report.error != 0 ? JobPhase::error : state_phase(report.state);
}

std::string state_string(const StatusReport& report) {
    return report.state.empty() ? "-" : report.state;
}

std::string describe_error(const StatusReport& report) {
    const std::string error =
        report.error == 0 ? "" : "error " + std::to_string(report.error) + ", ";
    return error + "state " + state_string(report);
}

Json identity_json(const StatusReport& report) {
    return {{"model_name", report.printer.model_name},
            {"cpu_id", report.printer.cpu_id},
            {"firmware_name", report.printer.firmware_name},
            {"firmware_version", report.printer.firmware_version},
            {"accept_version", report.printer.accept_version}};
}

Json status_json(const StatusReport& report) {
    return {{"printer", identity_json(report)},
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

StatusReport read_status_json(const Json& json) {
    static const Json nothing;
    const auto member = [](const Json& object, const char* key) -> const Json& {
        const auto found = object.is_object() ? object.find(key) : object.end();
        return found == object.end() ? nothing : *found;
    };
    const auto string = [&](const Json& object, const char* key) {
        const Json& value = member(object, key);
        return value.is_string() ? value.get<std::string>() : std::string();
    };
    const auto number = [&](const Json& object, const char* key) {
        const Json& value = member(object, key);
        const double read = value.is_number() ? value.get<double>() : 0;
        constexpr double kLimit = std::numeric_limits<std::int32_t>::max();
        return static_cast<std::int32_t>(std::clamp(read, -kLimit, kLimit));
    };
    const Json& printer = member(json, "printer");
    const Json& job = member(json, "job");
    const Json& temperature = member(json, "extruder_temperature");
    StatusReport report;
    report.printer.model_name = string(printer, "model_name");
    report.printer.cpu_id = string(printer, "cpu_id");
    report.printer.firmware_name = string(printer, "firmware_name");
    report.printer.firmware_version = string(printer, "firmware_version");
    report.printer.accept_version = number(printer, "accept_version");
    report.state = string(json, "state");
    report.build_plate = string(json, "build_plate");
    report.filament = string(json, "filament");
    report.extruder_temperature = temperature.is_number() ? temperature.get<double>() : 0;
    report.job_id = string(job, "id");
    report.file = string(job, "file");
    report.progress = number(job, "progress");
    report.time_elapsed = number(job, "time_elapsed");
    report.boot_time = number(json, "boot_time");
    report.idle_time = number(json, "idle_time");
    report.error = number(json, "error");
    return report;
}

Json trace_json(const servo_trace_msg& sample) {
    return {{"servo_name", sample.servo_name},
            {"servo_state", sample.servo_state},
            {"int_cnt", sample.int_cnt},
            {"pos_cmd", sample.pos_cmd},
            {"pos", sample.pos},
            {"pwm", sample.pwm},
            {"padout_dist", sample.padout_dist}};
}

}  // namespace jovu_cli
