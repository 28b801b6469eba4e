#include "event_text.h"

#include <nlohmann/json.hpp>
#include <string>

#include "options.h"
#include "timestamp.h"

namespace jovu_cli {
namespace {

Json trace_json(const servo_trace_msg& sample) {
    return {{"servo_name", sample.servo_name},
            {"servo_state", sample.servo_state},
            {"int_cnt", sample.int_cnt},
            {"pos_cmd", sample.pos_cmd},
            {"pos", sample.pos},
            {"pwm", sample.pwm},
            {"padout_dist", sample.padout_dist}};
}

std::string trace_text(const servo_trace_msg& sample) {
    return "servo " + std::to_string(sample.servo_name) + "  state " +
           std::to_string(sample.servo_state) + "  count " + std::to_string(sample.int_cnt) +
           "  commanded " + std::to_string(sample.pos_cmd) + "  at " + std::to_string(sample.pos) +
           "  pwm " + std::to_string(sample.pwm) + "  pad-out " +
           std::to_string(sample.padout_dist);
}

/// The firmware's texts are lines; the end of line need not be shown.
std::string line_text(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

void print_event(Output& out, const Notice& notice) {
    const auto* text = std::get_if<DebugText>(&notice.what);
    const auto* sample = std::get_if<servo_trace_msg>(&notice.what);
    if (text == nullptr && sample == nullptr) {
        return;
    }
    if (out.json()) {
        Json object = {{"time", utc_text(notice.time)},
                       {"device", to_string(notice.address)},
                       {"event", text != nullptr ? "debug_event" : "servo_dc_trace_event"}};
        if (text != nullptr) {
            object["text"] = *text ? Json(**text) : Json();
        } else {
            object["sample"] = trace_json(*sample);
        }
        out.object(object);
        return;
    }
    const std::string shown = text != nullptr ? line_text(text->value_or("")) : trace_text(*sample);
    out.line(clock_text(notice.time) + "  " + shown);
}

}  // namespace jovu_cli
