#include "commands/value_codec.h"

#include <cstring>
#include <string>
#include <utility>

#include "jovu/exception.h"
#include "json/byte_text.h"

void cmd_ifc_serialize_type(yajl_gen gen, const char* key, std::shared_ptr<char>& value) {
    if (value == nullptr) {
        throw JovuException("Send failed - text argument \"" + std::string(key) + "\" is null.");
    }
    JovuMessage::gen_string(gen, key);
    JovuMessage::gen_array_open(gen);
    const std::size_t length = std::strlen(value.get()) + 1;
    for (std::size_t i = 0; i < length; ++i) {
        JovuMessage::gen_integer(gen, static_cast<signed char>(value.get()[i]));
    }
    JovuMessage::gen_array_close(gen);
}

bool cmd_ifc_deserialize_type(yajl_val object, const char* key, std::shared_ptr<char>& value) {
    std::shared_ptr<char> text = jovu::read_byte_text(jovu::find(object, {key}, yajl_t_array));
    if (text == nullptr) return false;
    value = std::move(text);
    return true;
}
