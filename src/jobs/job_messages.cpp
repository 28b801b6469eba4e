// SPDX-License-Identifier: Apache-2.0
#include "jobs/job_messages.h"

#include <initializer_list>
#include <string_view>

#include "json/json.h"
#include "json/json_generator.h"

namespace jovu {
namespace {

/// Version of the job channel's messages.
constexpr long long kVersion = 1;

class Writer {
public:
    void open(std::string_view key) {
        text(key);
        yajl_gen_map_open(g());
    }
    void open() { yajl_gen_map_open(g()); }
    void close() { yajl_gen_map_close(g()); }
    void text(std::string_view value) {
        yajl_gen_string(g(), reinterpret_cast<const unsigned char*>(value.data()), value.size());
    }
    void number(std::string_view key, std::uint64_t value) {
        text(key);
        yajl_gen_integer(g(), static_cast<long long>(value));
    }
    void text(std::string_view key, std::string_view value) {
        text(key);
        text(value);
    }
    void metadata(std::string_view type) {
        open("metadata");
        number("version", kVersion);
        text("type", type);
        close();
    }
    std::string result() { return generator_.take_text(); }

private:
    yajl_gen g() const { return generator_.get(); }

    JsonGenerator generator_;
};

}  // namespace

std::string job_request(const char* type) {
    Writer writer;
    writer.open();
    writer.metadata(type);
    writer.close();
    return writer.result();
}

std::string job_announcement(const JobAnnouncement& announcement) {
    Writer writer;
    writer.open();
    writer.metadata("file_push");
    writer.open("file_push");
    writer.number("size", announcement.size);
    writer.number("adler32", announcement.adler32);
    writer.text("job_id", announcement.job_id);
    if (announcement.decompressed_length) {
        writer.open("compression");
        writer.text("algorithm", "deflate");
        writer.number("decompressed_length", *announcement.decompressed_length);
        writer.close();
    }
    writer.close();
    writer.close();
    return writer.result();
}

}  // namespace jovu

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
