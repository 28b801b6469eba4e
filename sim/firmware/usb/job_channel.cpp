// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/job_channel.h"

#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "firmware/base/host_input.h"

namespace jovusim {

namespace {

/// Longer than the time-out of a host for one piece.
constexpr Millis kSilence = 10000;

constexpr int kProtocolVersion = 1;
constexpr std::size_t kObjectLimit = 65536;
constexpr const char* kJobChannel = "job channel: ";

double rounded(double celsius) {
    return std::round(celsius * 10.0) / 10.0;
}

/// Returns what is wrong with an announcement, or nothing.
std::optional<std::string> check_announcement(const Json& push) {
    const bool plain = has_members(push, {"size", "adler32", "job_id"});
    if (!plain && !has_members(push, {"size", "adler32", "job_id", "compression"})) {
        return "its members are not size, adler32, job_id, compression";
    }
    if (!push["size"].is_number_unsigned()) return "its size is not an unsigned integer";
    if (!push["adler32"].is_number_unsigned() ||
        push["adler32"] > std::numeric_limits<std::uint32_t>::max()) {
        return "its adler32 is not a 32-bit number";
    }
    if (!push["job_id"].is_string()) return "its job_id is not a string";
    if (plain) return std::nullopt;
    const Json& compression = push["compression"];
    if (!has_members(compression, {"algorithm", "decompressed_length"}) ||
        compression["algorithm"] != "deflate" ||
        !compression["decompressed_length"].is_number_unsigned()) {
        return "its compression is not deflate with a decompressed_length";
    }
    return std::nullopt;
}

}  // namespace

bool JobChannel::ObjectScanner::take(char c) {
    text += c;
    if (escaped) {
        escaped = false;
    } else if (in_string) {
        escaped = c == '\\';
        in_string = c != '"';
    } else if (c == '"') {
        in_string = true;
    } else if (c == '{') {
        ++depth;
    } else if (c == '}') {
        --depth;
    }
    return depth == 0;
}

JobChannel::JobChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
                       ProtocolViolations& violations)
    : identity_(identity), machine_(machine), faults_(faults), violations_(violations) {}

void JobChannel::receive(const std::uint8_t* data, std::size_t size, Millis now) {
    last_byte_ = now;
    for (std::size_t i = 0; i < size;) {
        if (in_push()) {
            i += take_data(data + i, size - i);
        } else {
            take_text(static_cast<char>(data[i]), now);
            ++i;
        }
    }
}

void JobChannel::tick(Millis now) {
    if (now - last_byte_ <= kSilence) return;
    if (in_push()) {
        violations_.add(kJobChannel + std::string("the push stopped after ") +
                        std::to_string(push_.received) + " of " + std::to_string(push_.size) +
                        " bytes");
        end_push();
    } else if (scanner_.depth > 0) {
        violations_.add(kJobChannel + std::string("an incomplete object: ") +
                        excerpt(scanner_.text));
        scanner_ = {};
        machine_.job().fail(JobError::request);
    }
}

void JobChannel::reset() {
    transmit_queue_.clear();
    scanner_ = {};
    stray_reported_ = false;
    if (in_push()) end_push();
}

/// Fails a push before its last byte.
void JobChannel::end_push() {
    bytes_remaining_ = 0;
    machine_.job().fail(push_.accepted ? JobError::incomplete : JobError::busy);
}

std::size_t JobChannel::take_data(const std::uint8_t* data, std::size_t size) {
    const std::size_t part =
        static_cast<std::size_t>(std::min<std::uint64_t>(size, bytes_remaining_));
    push_.sum = static_cast<std::uint32_t>(adler32_z(push_.sum, data, part));
    push_.received += part;
    bytes_remaining_ -= part;
    if (bytes_remaining_ == 0) finish_push();
    return part;
}

void JobChannel::finish_push() {
    ++pushes_;
    if (!push_.accepted) {
        machine_.job().fail(JobError::busy);
        return;
    }
    if (machine_.job().state() != JobState::receiving) {  // the machine was reset during the push
        machine_.job().fail(JobError::incomplete);
        return;
    }
    push_.verified = push_.sum == push_.announced_sum;
    if (push_.verified) {
        machine_.job().start();
        return;
    }
    violations_.add(kJobChannel + std::string("the job data has the checksum ") +
                    std::to_string(push_.sum) + ", announced was " +
                    std::to_string(push_.announced_sum));
    machine_.job().fail(JobError::checksum);
}

void JobChannel::take_text(char c, Millis now) {
    if (scanner_.depth == 0 && c != '{') {
        if (!stray_reported_) {
            violations_.add(kJobChannel + std::string("stray bytes between objects, from \"") +
                            excerpt(std::string(1, c)) + "\" on");
        }
        stray_reported_ = true;
        return;
    }
    stray_reported_ = false;
    if (scanner_.take(c)) {
        const ObjectScanner complete = std::exchange(scanner_, {});
        handle(complete.text, now);
    } else if (scanner_.text.size() > kObjectLimit) {
        violations_.add(kJobChannel + std::string("an object is too long: ") +
                        excerpt(scanner_.text));
        scanner_ = {};
        machine_.job().fail(JobError::request);
    }
}

void JobChannel::handle(const std::string& text, Millis now) {
    const Json object = parse_json(text);
    const Json* metadata = nullptr;
    if (!object.is_discarded() && object.contains("metadata")) metadata = &object["metadata"];
    if (metadata == nullptr || !has_members(*metadata, {"version", "type"}) ||
        (*metadata)["version"] != kProtocolVersion || !(*metadata)["type"].is_string()) {
        violations_.add(kJobChannel + std::string("not a request: ") + excerpt(text));
        machine_.job().fail(JobError::request);
        return;
    }
    if (has_blanks(text)) {
        violations_.add(kJobChannel + std::string("blanks in the JSON: ") + excerpt(text));
    }
    if (faults_.drop.take()) return;
    handle_request((*metadata)["type"].get<std::string>(), text, object, now);
}

void JobChannel::handle_request(const std::string& type, const std::string& text,
                                const Json& object, Millis now) {
    const bool push = type == "file_push";
    const bool members_fit =
        push ? has_members(object, {"metadata", "file_push"}) : has_members(object, {"metadata"});
    if (!members_fit) {
        violations_.add(kJobChannel + std::string("the members of this request are wrong: ") +
                        excerpt(text));
    }
    if (type == "status") {
        send_status(now);
    } else if (type == "pause") {
        machine_.job().toggle_pause();
    } else if (type == "abort") {
        machine_.job().abort();
    } else if (push) {
        begin_push(text, object);
    } else {
        violations_.add(kJobChannel + std::string("unknown request: ") + excerpt(text));
        machine_.job().fail(JobError::request);
        return;
    }
    ++requests_[type];
    machine_.note_activity();
}

void JobChannel::begin_push(const std::string& text, const Json& object) {
    const Json body = object.contains("file_push") ? object["file_push"] : Json();
    if (const auto fault = check_announcement(body)) {
        violations_.add(kJobChannel + std::string("file_push: ") + *fault + ": " + excerpt(text));
        machine_.job().fail(JobError::announcement);
        return;
    }
    push_ = {};
    push_.size = body["size"].get<std::uint64_t>();
    push_.announced_sum = body["adler32"].get<std::uint32_t>();
    push_.accepted = !machine_.job().running();
    bytes_remaining_ = push_.size;
    if (push_.accepted) machine_.job().announce(body["job_id"].get<std::string>());
    if (bytes_remaining_ == 0) finish_push();
}

void JobChannel::send_status(Millis now) {
    if (faults_.silent.take()) return;
    std::string report = status_report();
    if (faults_.take(Corruption::json)) report.pop_back();
    if (faults_.take(Corruption::truncate)) report.resize(report.size() / 2);
    transmit_queue_.push(std::move(report), now + faults_.delay, faults_.packet_size);
}

void JobChannel::flood(std::uint64_t reports) {
    transmit_queue_.push_burst(reports, [this](std::uint64_t) { return status_report(); });
}

std::string JobChannel::status_report() const {
    const PrintJob& job = machine_.job();
    const Json report = {
        {"metadata", {{"version", kProtocolVersion}, {"type", "status"}}},
        {"printer",
         {{"model_name", identity_.model_name},
          {"cpu_id", identity_.serial},
          {"firmware",
           {{"name", identity_.firmware_name}, {"version", identity_.firmware_version}}},
          {"accept_version", kProtocolVersion}}},
        {"status",
         {{"state", to_string(job.state())},
          {"build_plate", "present"},
          {"filament", to_string(machine_.filament())},
          {"extruder_temperature", rounded(machine_.heater().temperature())}}},
        {"job",
         {{"id", job.id()},
          {"progress", job.progress()},
          {"file", job.file()},
          {"time_elapsed", job.elapsed_seconds()}}},
        {"time", {{"boot", machine_.seconds_since_boot()}, {"idle", machine_.seconds_idle()}}},
        {"error", static_cast<int>(job.error())}};
    return report.dump();
}

Json JobChannel::stats() const {
    const PrintJob& job = machine_.job();
    return {{"requests", requests_},
            {"dropped", transmit_queue_.dropped()},
            {"pushes", pushes_},
            {"size", push_.size},
            {"received", push_.received},
            {"adler32", push_.announced_sum},
            {"computed", push_.sum},
            {"verified", push_.verified},
            {"id", job.id()},
            {"state", to_string(job.state())},
            {"error", static_cast<int>(job.error())},
            {"progress", job.progress()},
            {"finished", job.finished()}};
}

}  // namespace jovusim
