// SPDX-License-Identifier: Apache-2.0
#include "bare_yajl.h"

#include <cstring>
#include <stdexcept>

#include <yajl/yajl_gen.h>

namespace {

void write_text(yajl_gen gen, const char* text) {
    yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
}

void write(yajl_gen gen, yajl_val value) {
    if (YAJL_IS_OBJECT(value)) {
        yajl_gen_map_open(gen);
        for (std::size_t i = 0; i < value->u.object.len; ++i) {
            write_text(gen, value->u.object.keys[i]);
            write(gen, value->u.object.values[i]);
        }
        yajl_gen_map_close(gen);
    } else if (YAJL_IS_ARRAY(value)) {
        yajl_gen_array_open(gen);
        for (std::size_t i = 0; i < value->u.array.len; ++i)
            write(gen, value->u.array.values[i]);
        yajl_gen_array_close(gen);
    } else if (YAJL_IS_STRING(value)) {
        write_text(gen, value->u.string);
    } else if (YAJL_IS_INTEGER(value)) {
        yajl_gen_integer(gen, value->u.number.i);
    } else if (YAJL_IS_NUMBER(value)) {
        yajl_gen_double(gen, value->u.number.d);
    }
}

}  // namespace

namespace bench {

std::size_t generate(yajl_val document) {
    const yajl_gen gen = yajl_gen_alloc(nullptr);
    write(gen, document);
    const unsigned char* text = nullptr;
    std::size_t length = 0;
    yajl_gen_get_buf(gen, &text, &length);
    yajl_gen_free(gen);
    return length;
}

void parse(const std::string& text) {
    const yajl_val tree = yajl_tree_parse(text.c_str(), nullptr, 0);
    if (tree == nullptr) throw std::logic_error("not JSON: " + text);
    yajl_tree_free(tree);
}

void ObjectCutter::receive(const char* bytes, std::size_t size) {
    std::size_t begin = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] == '{') ++depth_;
        if (bytes[i] != '}' || --depth_ != 0) continue;
        object_.append(bytes + begin, i + 1 - begin);
        parse(object_);
        object_.clear();
        begin = i + 1;
    }
    object_.append(bytes + begin, size - begin);
}

}  // namespace bench
