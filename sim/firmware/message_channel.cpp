#include "firmware/message_channel.h"

#include <cstdio>

#include "firmware/values.h"

namespace jovusim {

namespace {

/// A frame whose bytes stop coming is forgotten after that time, so that a host that starts anew is
/// understood. Longer than a host waits for one transfer.
constexpr Millis kFrameSilence = 5000;

/// Events count their own ids from here on, far from those of a host that has just started.
constexpr std::uint32_t kFirstEventId = 0x40000000;

/// Far from any id that a host has got to.
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
        violations_.add("message channel: a frame was left unfinished");
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
    // Almost as long as the request was, or longer when a host writes numbers in another way; the
    // echo is not part of the response's meaning.
    for (const char* const echo : {"args", "name", "idx"}) {
        if (text.size() + 2 * std::size_t{faults_.deep} <= kMaxFramePayload) break;
        document["data"]["command"].erase(echo);
        text = document.dump();
    }
    if (result != nullptr && faults_.deep > 0) {
        // Written as text: a JSON tree of that depth would be walked by recursion.
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
    // A thousand of these a second: no tree for each of them.
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

void MessageChannel::send_samples(const std::vector<TraceSample>& samples, Millis now) {
    // The response to the command that ends them must still find room behind them.
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
