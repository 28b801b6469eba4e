// SPDX-License-Identifier: Apache-2.0
#include "session/reports.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/options.h"
#include "session/device_names.h"
#include "terminal/format.h"

namespace jovu_cli {
namespace {

/// @return a string of a device, or a dash for an empty one.
std::string shown(const std::string& value) {
    return value.empty() ? "-" : value;
}

std::string job_string(const StatusReport& report) {
    if (report.file.empty() && report.job_id.empty()) {
        return "-";
    }
    std::string job = report.file;
    if (!report.job_id.empty()) {
        job += (job.empty() ? "id " : " (id ") + report.job_id;
        job += report.file.empty() ? "" : ")";
    }
    return job;
}

std::string error_string(const StatusReport& report) {
    return report.error == 0 ? "none" : std::to_string(report.error);
}

std::string trace_line(const servo_trace_msg& sample) {
    return "servo " + std::to_string(sample.servo_name) + "  state " +
           std::to_string(sample.servo_state) + "  count " + std::to_string(sample.int_cnt) +
           "  commanded " + std::to_string(sample.pos_cmd) + "  at " + std::to_string(sample.pos) +
           "  pwm " + std::to_string(sample.pwm) + "  pad-out " +
           std::to_string(sample.padout_dist);
}

std::string without_line_end(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

}  // namespace

Json to_json(JovuDeviceAddress address, const StatusReport& report) {
    Json object = device_json(address);
    object.update(status_json(report));
    return object;
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
    return report_block(device_name(address), report);
}

std::vector<std::string> report_block(const std::string& device, const StatusReport& report) {
    return {
        labelled("Device", device),
        labelled("Model", shown(report.printer.model_name)),
        labelled("Firmware", shown(report.printer.firmware_name) + " " +
                                 shown(report.printer.firmware_version)),
        labelled("State", shown(report.state)),
        labelled("Extruder", temperature_string(report.extruder_temperature)),
        labelled("Build plate", shown(report.build_plate)),
        labelled("Filament", shown(report.filament)),
        labelled("Job", job_string(report)),
        labelled("Progress", std::to_string(report.progress) + " %, " +
                                 duration_string(report.time_elapsed) + " elapsed"),
        labelled("Running", duration_string(report.boot_time) + ", idle for " +
                                duration_string(report.idle_time)),
        labelled("Error", error_string(report)),
    };
}

std::string report_line(JovuDeviceAddress address, const StatusReport& report) {
    return device_name(address) + "  " + report_line(report);
}

std::string report_line(const StatusReport& report) {
    std::string line = shown(report.state) + "  " +
                       temperature_string(report.extruder_temperature) + "  " +
                       std::to_string(report.progress) + " %  " +
                       duration_string(report.time_elapsed) + "  job " + job_string(report);
    if (report.error != 0) {
        line += "  error " + std::to_string(report.error);
    }
    return line;
}

std::string event_string(const Notification& notification) {
    if (const auto* message = std::get_if<DebugMessage>(&notification.what)) {
        return without_line_end(message->value_or(""));
    }
    const auto* sample = std::get_if<servo_trace_msg>(&notification.what);
    return sample != nullptr ? trace_line(*sample) : std::string();
}

void print_event(Output& out, const Notification& notification) {
    const auto* message = std::get_if<DebugMessage>(&notification.what);
    const auto* sample = std::get_if<servo_trace_msg>(&notification.what);
    if (message == nullptr && sample == nullptr) {
        return;
    }
    if (out.json()) {
        Json object = {{"time", utc_string(notification.time)}};
        object.update(device_json(notification.address));
        object["event"] = message != nullptr ? "debug_event" : "servo_dc_trace_event";
        if (message != nullptr) {
            object["text"] = *message ? Json(**message) : Json();
        } else {
            object["sample"] = trace_json(*sample);
        }
        out.object(object);
        return;
    }
    out.line(clock_string(notification.time) + "  " + event_string(notification));
}

void print_lost_events(std::size_t count, const char* action) {
    if (count > 0) {
        print_error(std::string("jovu: events lost, they arrive faster than they can be ") +
                    action + ": " + std::to_string(count));
    }
}

}  // namespace jovu_cli
