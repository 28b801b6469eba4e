#include "events/event_codec.h"

#include <array>

#include "json/byte_text.h"
#include "json/json.h"

namespace {

/// Reads one member of a sample. Sets @p complete to false when it is missing or no number.
template <class Field>
void read(yajl_val args, const char* key, const char* member, Field& field, bool& complete) {
    if (const auto value = jovu::find_integer(args, {key, member})) {
        field = static_cast<Field>(*value);
    } else {
        complete = false;
    }
}

}  // namespace

bool event_ifc_deserialize_type(yajl_val args, const char* key, std::shared_ptr<char>& out) {
    std::shared_ptr<char> text = jovu::read_byte_text(jovu::find(args, {key}, yajl_t_array));
    if (text == nullptr) return false;
    out = std::move(text);
    return true;
}

bool event_ifc_deserialize_type(yajl_val args, const char* key, servo_trace_msg& out) {
    servo_trace_msg sample{};
    bool complete = true;
    read(args, key, "servo_name", sample.servo_name, complete);
    read(args, key, "servo_state", sample.servo_state, complete);
    read(args, key, "int_cnt", sample.int_cnt, complete);
    read(args, key, "pos_cmd", sample.pos_cmd, complete);
    read(args, key, "pos", sample.pos, complete);
    read(args, key, "pwm", sample.pwm, complete);
    read(args, key, "padout_dist", sample.padout_dist, complete);
    if (complete) out = sample;
    return complete;
}
