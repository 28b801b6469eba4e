// SPDX-License-Identifier: Apache-2.0
#include "json/json_generator.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace jovu {
namespace {

/// Most documents are shorter, in bytes.
constexpr std::size_t kFirstSize = 500;

/// Digits that yajl writes of a floating-point number.
constexpr int kPrecision = 20;

}  // namespace

JsonGenerator::JsonGenerator()
    : generator_(yajl_gen_alloc(&functions_)), buffer_(kFirstSize, '\0') {
    if (generator_ == nullptr) throw std::bad_alloc();
    yajl_gen_config(generator_.get(), yajl_gen_print_callback, static_cast<yajl_print_t>(append),
                    static_cast<void*>(this));
}

void JsonGenerator::append(void* self, const char* text, std::size_t length) noexcept {
    auto& generator = *static_cast<JsonGenerator*>(self);
    std::string& buffer = generator.buffer_;
    if (length > buffer.size() - generator.length_) {
        try {
            buffer.resize(2 * buffer.size() + length);
        } catch (const std::exception&) {
            generator.out_of_memory_ = true;
            return;
        }
    }
    if (length == 1) {  // As most are: a bracket, a comma or a quotation mark.
        buffer[generator.length_] = *text;
    } else {
        std::memcpy(buffer.data() + generator.length_, text, length);
    }
    generator.length_ += length;
}

std::string JsonGenerator::take_text() {
    if (out_of_memory_) throw std::bad_alloc();
    buffer_.resize(std::exchange(length_, 0));
    return std::move(buffer_);
}

yajl_gen_status write_integer(yajl_gen gen, long long value) {
    char digits[24];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), value);
    return yajl_gen_number(gen, digits, static_cast<std::size_t>(end.ptr - digits));
}

yajl_gen_status write_double(yajl_gen gen, double value) {
    if (!std::isfinite(value)) return yajl_gen_double(gen, value);  // Refuses it.
    char text[40];
    char* end = std::to_chars(std::begin(text), std::end(text), value, std::chars_format::general,
                              kPrecision)
                    .ptr;
    const std::string_view written(text, static_cast<std::size_t>(end - text));
    if (written.find_first_not_of("0123456789-") == std::string_view::npos) {
        *end++ = '.';
        *end++ = '0';
    }
    return yajl_gen_number(gen, text, static_cast<std::size_t>(end - text));
}

}  // namespace jovu
