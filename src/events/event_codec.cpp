#include "events/event_codec.h"

#include <array>

#include "json/byte_text.h"
#include "json/json.h"

namespace {

/// Reads one member of a sample.
/// @return false when it is missing or no number.
template <class Field>
bool read(yajl_val object, const char* member, Field& field) {
    const auto value = jovu::find_integer(object, {member});
    if (value) field = static_cast<Field>(*value);
    return value.has_value();
}

}  // namespace

bool event_ifc_deserialize_type(yajl_val args, const char* key, std::shared_ptr<char>& out) {
    std::shared_ptr<char> text = jovu::read_byte_text(jovu::find(args, {key}, yajl_t_array));
    if (text == nullptr) return false;
    out = std::move(text);
    return true;
}

bool event_ifc_deserialize_type(yajl_val args, const char* key, servo_trace_msg& out) {
    const yajl_val object = jovu::find(args, {key}, yajl_t_object);
    servo_trace_msg sample{};
    if (!read(object, "servo_name", sample.servo_name) ||
        !read(object, "servo_state", sample.servo_state) ||
        !read(object, "int_cnt", sample.int_cnt) || !read(object, "pos_cmd", sample.pos_cmd) ||
        !read(object, "pos", sample.pos) || !read(object, "pwm", sample.pwm) ||
        !read(object, "padout_dist", sample.padout_dist)) {
        return false;
    }
    out = sample;
    return true;
}
