// SPDX-License-Identifier: Apache-2.0
#include "json/json.h"

#include <cmath>
#include <new>
#include <vector>

namespace jovu {
namespace {

/// The "C" locale, made once and kept; null if the C library cannot make it, and then the thread's
/// locale stays as it is.
locale_t c_locale() noexcept {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
}

}  // namespace

bool nests_within(std::string_view text, std::size_t limit) noexcept {
    std::size_t depth = 0;
    bool in_string = false;
    bool escaped = false;
    for (const char c : text) {
        if (in_string) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                in_string = false;
            }
        } else if (c == '"') {
            in_string = true;
        } else if (c == '/') {
            return false;
        } else if (c == '{' || c == '[') {
            if (++depth > limit) return false;
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

JsonTree parse_json(const std::string& text) {
    // yajl sees the text up to its first NUL.
    if (!nests_within(text.c_str(), kMaxJsonDepth)) return nullptr;
    const NumericLocale locale;
    return JsonTree(yajl_tree_parse(text.c_str(), nullptr, 0));
}

yajl_val find(yajl_val object, std::initializer_list<const char*> path, yajl_type type) noexcept {
    for (const char* const key : path) {
        const char* step[] = {key, nullptr};
        object = yajl_tree_get(object, step, yajl_t_any);
    }
    return object != nullptr && (type == yajl_t_any || object->type == type) ? object : nullptr;
}

const char* find_string(yajl_val object, std::initializer_list<const char*> path) noexcept {
    return YAJL_GET_STRING(find(object, path, yajl_t_string));
}

long long integer_of(yajl_val number) noexcept {
    // The first double beyond the largest integer. For what does not fit yajl stores the integer
    // that is next to it.
    constexpr double kLimit = 9223372036854775808.0;
    const double value = number->u.number.d;
    const bool fits = std::abs(value) < kLimit;
    if (YAJL_IS_INTEGER(number) || !fits) return number->u.number.i;
    return static_cast<long long>(value);
}

std::optional<long long> find_integer(yajl_val object,
                                      std::initializer_list<const char*> path) noexcept {
    const yajl_val node = find(object, path, yajl_t_number);
    if (node == nullptr) return std::nullopt;
    return integer_of(node);
}

std::optional<double> find_double(yajl_val object,
                                  std::initializer_list<const char*> path) noexcept {
    const yajl_val node = find(object, path, yajl_t_number);
    if (node == nullptr) return std::nullopt;
    return YAJL_GET_DOUBLE(node);
}

std::shared_ptr<char> read_byte_string(yajl_val array) {
    if (!YAJL_IS_ARRAY(array)) return nullptr;
    const std::size_t length = array->u.array.len;
    auto string = std::make_shared<std::vector<char>>(length + 1, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        const yajl_val element = array->u.array.values[i];
        if (!YAJL_IS_NUMBER(element)) return nullptr;
        (*string)[i] = static_cast<char>(integer_of(element));
    }
    return {string, string->data()};
}

JsonGenerator::JsonGenerator() : generator_(yajl_gen_alloc(nullptr)) {
    if (generator_ == nullptr) throw std::bad_alloc();
}

std::string_view JsonGenerator::text() const {
    const unsigned char* buffer = nullptr;
    std::size_t length = 0;
    if (yajl_gen_get_buf(generator_.get(), &buffer, &length) != yajl_gen_status_ok ||
        buffer == nullptr) {
        throw std::bad_alloc();
    }
    return {reinterpret_cast<const char*>(buffer), length};
}

NumericLocale::NumericLocale() noexcept : previous_(::uselocale(c_locale())) {}

NumericLocale::~NumericLocale() {
    ::uselocale(previous_);
}

}  // namespace jovu
