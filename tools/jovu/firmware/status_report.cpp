// SPDX-License-Identifier: Apache-2.0
#include "firmware/status_report.h"

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
