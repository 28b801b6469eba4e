// SPDX-License-Identifier: Apache-2.0
#include "commands/value_codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "jovu/exception.h"

namespace {

[[noreturn]] void refuse(const char* key, const std::string& why) {
    throw JovuException("Send failed - argument \"" + std::string(key) + "\" is " + why + ".",
                        JovuError::rejected);
}

/// The generator would leave a number without a JSON form out of the body, and what follows would
/// slide into its place.
void write_number(yajl_gen gen, const char* key, double value) {
    if (!std::isfinite(value)) refuse(key, "not a finite number: " + std::to_string(value));
    JovuMessage::gen_double(gen, value);
}

/// The nearest float. Beyond the largest one the conversion itself would be undefined; what rounds
/// to it, such as its own usual spelling 3.4028235e38, is taken for it.
float narrow(double value) {
    constexpr double kRoundsToInfinity = 0x1.ffffffp127;
    constexpr double kLargest = std::numeric_limits<float>::max();
    if (std::abs(value) >= kRoundsToInfinity) {
        return static_cast<float>(std::copysign(HUGE_VAL, value));
    }
    return static_cast<float>(std::clamp(value, -kLargest, kLargest));
}

/// Reads an array of numbers, each through @p element.
template <class T, class Element>
bool read_array(yajl_val object, const char* key, std::shared_ptr<T>& value, Element element) {
    const yajl_val array = jovu::find(object, {key}, yajl_t_array);
    if (array == nullptr) return false;
    auto elements = std::make_shared<std::vector<T>>(array->u.array.len + 1);
    for (std::size_t i = 0; i < array->u.array.len; ++i) {
        const yajl_val number = array->u.array.values[i];
        if (!YAJL_IS_NUMBER(number)) return false;
        (*elements)[i] = element(number);
    }
    value = std::shared_ptr<T>(elements, elements->data());
    return true;
}

}  // namespace

void jovu::refuse_null(const char* key, const void* pointer) {
    if (pointer == nullptr) refuse(key, "null");
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, double& value) {
    JovuMessage::gen_string(gen, key);
    write_number(gen, key, value);
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, float& value) {
    JovuMessage::gen_string(gen, key);
    write_number(gen, key, static_cast<double>(value));
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key, double& value) {
    const auto number = jovu::find_double(object, {key});
    if (number) value = *number;
    return number.has_value();
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key, float& value) {
    const auto number = jovu::find_double(object, {key});
    if (number) value = narrow(*number);
    return number.has_value();
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<float>& value) {
    jovu::refuse_null(key, value.get());
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    write_number(gen, key, static_cast<double>(*value));
    JovuMessage::gen_array_close(gen);
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<unsigned char>& value) {
    jovu::refuse_null(key, value.get());
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    JovuMessage::gen_integer(gen, *value);
    JovuMessage::gen_array_close(gen);
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<float>& value) {
    return read_array(object, key, value,
                      [](yajl_val number) { return narrow(YAJL_GET_DOUBLE(number)); });
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key,
                              std::shared_ptr<unsigned char>& value) {
    return read_array(object, key, value, [](yajl_val number) {
        return static_cast<unsigned char>(jovu::integer_of(number));
    });
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<char>& value) {
    jovu::refuse_null(key, value.get());
    std::string_view text(value.get());
    cmd_ifc_serialize_type(gen, key, text);
}

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::string_view& value) {
    jovu::refuse_null(key, value.data());
    const std::size_t zero = value.find('\0');
    if (zero != std::string_view::npos)
        refuse(key, "cut by a zero byte at position " + std::to_string(zero));
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    for (const char c : value)
        JovuMessage::gen_integer(gen, static_cast<signed char>(c));
    JovuMessage::gen_integer(gen, 0);
    JovuMessage::gen_array_close(gen);
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<char>& value) {
    std::shared_ptr<char> text = jovu::read_byte_string(jovu::find(object, {key}, yajl_t_array));
    if (text == nullptr) return false;
    value = std::move(text);
    return true;
}

void cmd_ifc_serialize_bytes(yajl_gen gen, const char* key, const unsigned char* bytes,
                             std::size_t size, bool is_signed) {
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    for (std::size_t i = 0; i < size; ++i) {
        JovuMessage::gen_integer(gen, is_signed ? static_cast<signed char>(bytes[i]) : bytes[i]);
    }
    JovuMessage::gen_array_close(gen);
}

void cmd_ifc_deserialize_bytes(yajl_val object, const char* key, unsigned char* bytes,
                               std::size_t size) {
    const yajl_val array = jovu::find(object, {key}, yajl_t_array);
    if (array == nullptr) return;
    const std::size_t count = std::min(size, array->u.array.len);
    const auto* const first = array->u.array.values;
    if (!std::all_of(first, first + count, [](yajl_val e) { return YAJL_IS_NUMBER(e); })) return;
    std::transform(first, first + count, bytes, [](yajl_val element) {
        return static_cast<unsigned char>(jovu::integer_of(element));
    });
}
