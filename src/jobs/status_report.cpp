#include "jobs/status_report.h"

#include <initializer_list>

#include "json/json.h"

namespace {

using Path = std::initializer_list<const char*>;

void read(yajl_val report, Path path, std::string& field) {
    if (const char* const text = jovu::find_string(report, path)) field = text;
}

bool read(yajl_val report, Path path, std::int32_t& field) {
    const auto number = jovu::find_integer(report, path);
    if (number) field = static_cast<std::int32_t>(*number);
    return number.has_value();
}

void read(yajl_val report, Path path, double& field) {
    if (const auto number = jovu::find_double(report, path)) field = *number;
}

}  // namespace

void parse_status(yajl_val report, JovuJobInterface::StatusMsg& status) {
    read(report, {"printer", "model_name"}, status.printer.model_name);
    read(report, {"printer", "cpu_id"}, status.printer.cpu_id);
    read(report, {"printer", "firmware", "name"}, status.printer.firmware_name);
    read(report, {"printer", "firmware", "version"}, status.printer.firmware_version);
    read(report, {"printer", "accept_version"}, status.printer.accept_version);
    read(report, {"status", "state"}, status.state);
    read(report, {"status", "build_plate"}, status.build_plate);
    read(report, {"status", "filament"}, status.filament);
    read(report, {"status", "extruder_temperature"}, status.extruder_temperature);
    read(report, {"job", "id"}, status.job_id);
    read(report, {"job", "progress"}, status.progress);
    read(report, {"job", "file"}, status.file);
    read(report, {"job", "time_elapsed"}, status.time_elapsed);
    read(report, {"time", "boot"}, status.boot_time);
    read(report, {"time", "idle"}, status.idle_time);
    // Older firmware says "errors".
    if (!read(report, {"error"}, status.error)) read(report, {"errors"}, status.error);
}
