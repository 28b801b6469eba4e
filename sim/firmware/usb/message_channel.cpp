// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/message_channel.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "firmware/base/values.h"

namespace jovusim {

namespace {

void append_word(std::string& out, unsigned word) {
    out += static_cast<char>(word & 0xFFU);
    out += static_cast<char>((word >> 8U) & 0xFFU);
}

unsigned word_at(const std::string& bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]) |
           static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8U;
}

}  // namespace

std::string encode_frame(std::string_view payload) {
    if (payload.size() > kMaxFramePayload) {
        throw std::length_error("a frame cannot carry " + std::to_string(payload.size()) +
                                " bytes");
    }
    const auto length = static_cast<unsigned>(payload.size() + 1);
    std::string frame;
    frame.reserve(kFrameHeaderSize + length);
    frame += kFrameStart;
    append_word(frame, length);
    append_word(frame, ~length);
    frame += payload;
    frame += kFrameEnd;
    return frame;
}

bool FrameReader::take(char byte) {
    switch (state_) {
        case State::start:
            if (byte == kFrameStart) {
                header_.clear();
                stray_reported_ = false;
                state_ = State::header;
            } else if (!stray_reported_) {
                stray_reported_ = true;
                violations_.add("message channel: stray bytes between frames, from \"" +
                                excerpt(std::string(1, byte)) + "\" on");
            }
            return false;
        case State::header:
            header_ += byte;
            if (header_.size() == kFrameHeaderSize - 1) read_header();
            return false;
        case State::payload:
            payload_ += byte;
            if (payload_.size() == expected_) state_ = State::terminator;
            return false;
        case State::terminator:
            break;
    }
    state_ = State::start;
    if (byte == kFrameEnd) {
        ++frames_;
        return true;
    }
    violations_.add("message channel: a frame of " + std::to_string(expected_) +
                    " bytes does not end with \";\"");
    return take(byte);
}

void FrameReader::read_header() {
    const unsigned length = word_at(header_, 0);
    const unsigned check = word_at(header_, 2);
    if ((length ^ check) != 0xFFFFU || length == 0) {
        violations_.add("message channel: frame header with length " + std::to_string(length) +
                        " and length check " + std::to_string(check));
        state_ = State::start;
        return;
    }
    expected_ = length - 1;
    payload_.clear();
    state_ = expected_ == 0 ? State::terminator : State::payload;
}

void FrameReader::reset() {
    state_ = State::start;
}

namespace {

/// An incomplete frame is dropped after this time, so that a restarted host is understood. Longer
/// than the time-out of one transfer on the host.
constexpr Millis kFrameSilence = 5000;

/// A response comes behind these: a host that reads without long pauses, if only a hundred samples
/// a second, has it within the time-out of a command.
constexpr std::size_t kUnreadSamples = 250;

/// A host that has received nothing for this time does not read; or a fault has kept the device
/// from sending, which counts as that.
constexpr Millis kReadingSilence = 1000;

/// First id of events, far from the ids of a host that has just started.
constexpr std::uint32_t kFirstEventId = 0x40000000;

/// Makes an id that no host has used.
constexpr std::uint32_t kWrongIdOffset = 0x20000000;

constexpr const char* kDeepResult = "__deep__";

std::string nested_arrays(std::uint32_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

}  // namespace

MessageChannel::MessageChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
                               ProtocolViolations& violations)
    : identity_(identity),
      machine_(machine),
      faults_(faults),
      violations_(violations),
      reader_(violations),
      next_event_id_(kFirstEventId) {}

void MessageChannel::receive(const std::uint8_t* data, std::size_t size, Millis now) {
    if (reader_.in_frame() && now - last_byte_ > kFrameSilence) {
        violations_.add("message channel: an incomplete frame was dropped");
        reader_.reset();
    }
    last_byte_ = now;
    for (std::size_t i = 0; i < size; ++i) {
        if (reader_.take(static_cast<char>(data[i]))) handle(reader_.payload(), now);
    }
}

void MessageChannel::reset() {
    reader_.reset();
    transmit_queue_.clear();
}

void MessageChannel::handle(const std::string& payload, Millis now) {
    std::optional<Request> request = read_request(payload, violations_);
    if (!request) return;
    if (faults_.drop.take()) return;
    if (request->command == nullptr) {
        respond(*request, nullptr, now);
        return;
    }
    ++commands_[request->command->name];
    machine_.note_activity();
    std::vector<std::string> lines;
    CommandContext context{identity_, machine_, gcode_, request->args, lines, now};
    const Json result = request->command->run(context);
    for (const std::string& line : lines)
        send_debug_event(line, now);
    respond(*request, &result, now);
}

void MessageChannel::respond(const Request& request, const Json* result, Millis now) {
    if (!request.response_wanted || faults_.silent.take()) return;
    ++responses_;
    Json body = Json::object();
    if (!request.idx.is_null()) body["idx"] = request.idx;
    if (!request.name.is_null()) body["name"] = request.name;
    if (!request.args.is_null()) body["args"] = request.args;
    if (result != nullptr) body["__return__"] = faults_.deep > 0 ? Json(kDeepResult) : *result;

    Json transport = Json::object();
    if (!faults_.take(Corruption::attrs)) transport["attrs"] = Json::array({"response"});
    transport["id"] = faults_.take(Corruption::id) ? request.id + kWrongIdOffset : request.id;

    Json document = {{"transport", transport}, {"data", {{"command", body}}}};
    std::string text = document.dump();
    // The echo may make the response longer than a frame, for instance when a host writes numbers
    // in another form. The response is complete without it.
    for (const char* const echo : {"args", "name", "idx"}) {
        if (text.size() + 2 * std::size_t{faults_.deep} <= kMaxFramePayload) break;
        document["data"]["command"].erase(echo);
        text = document.dump();
    }
    if (result != nullptr && faults_.deep > 0) {
        // Inserted as a string: a JSON tree of that depth would be printed by recursion.
        const std::string marker = '"' + std::string(kDeepResult) + '"';
        text.replace(text.rfind(marker), marker.size(), nested_arrays(faults_.deep));
        faults_.deep = 0;
    }
    if (faults_.take(Corruption::json)) text.pop_back();
    std::string frame = encode_frame(text);
    if (faults_.take(Corruption::check)) frame[3] = static_cast<char>(~frame[3]);
    if (faults_.take(Corruption::terminator)) frame.back() = '!';
    if (faults_.take(Corruption::truncate)) frame.resize(frame.size() / 2);
    transmit_queue_.push(std::move(frame), now + faults_.delay, faults_.packet_size);
}

std::string MessageChannel::debug_event(const std::string& text) {
    ++events_;
    const Json document = {
        {"transport", {{"attrs", {"request", "oneway"}}, {"id", next_event_id_++}}},
        {"data",
         {{"event",
           {{"name", "debug_event"},
            {"args", {{"text", string_to_json(text.substr(0, kMaxEventString))}}}}}}}};
    return encode_frame(document.dump());
}

void MessageChannel::send_debug_event(const std::string& text, Millis now) {
    transmit_queue_.push(debug_event(text), now);
}

std::string MessageChannel::trace_event(const TraceSample& sample) {
    ++events_;
    // Formatted without a JSON tree: there are a thousand of these in a second.
    char text[320];
    std::snprintf(text, sizeof text,
                  R"({"transport":{"attrs":["request","oneway"],"id":%u},"data":{"event":)"
                  R"({"name":"servo_dc_trace_event","args":{"msg":{"servo_name":%d,)"
                  R"("servo_state":%d,"int_cnt":%u,"pos_cmd":%d,"pos":%d,"pwm":%d,)"
                  R"("padout_dist":%d}}}}})",
                  next_event_id_++, sample.servo, static_cast<int>(sample.state), sample.count,
                  sample.commanded, sample.position, sample.pwm, sample.padout);
    return encode_frame(text);
}

std::optional<std::size_t> MessageChannel::room_for_samples(Millis heard) const {
    const std::optional<Millis> last = transmit_queue_.last_read();
    if (!last || heard - *last > kReadingSilence) return std::nullopt;
    return kUnreadSamples - std::min(transmit_queue_.minor_count(), kUnreadSamples);
}

void MessageChannel::send_samples(const std::vector<TraceSample>& samples, Millis now) {
    // The queue keeps space for the response to the command that ends the trace.
    for (const TraceSample& sample : samples)
        transmit_queue_.push_minor(trace_event(sample), now);
}

void MessageChannel::flood(std::uint64_t events) {
    transmit_queue_.push_burst(
        events, [this](std::uint64_t i) { return debug_event("flood " + std::to_string(i)); });
}

Json MessageChannel::stats() const {
    return {{"frames", reader_.frames()}, {"responses", responses_},
            {"events", events_},          {"dropped", transmit_queue_.dropped()},
            {"commands", commands_},      {"gcode", gcode_.last_lines()},
            {"display", machine_.display}};
}

}  // namespace jovusim
