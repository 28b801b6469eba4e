// SPDX-License-Identifier: Apache-2.0
#include "json/json.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

namespace jovu {

namespace {

/// The first member with a key; null when there is none, or no object.
yajl_val member(yajl_val object, const char* key) noexcept {
    if (!YAJL_IS_OBJECT(object)) return nullptr;
    const auto& members = object->u.object;
    for (std::size_t i = 0; i < members.len; ++i) {
        if (std::strcmp(members.keys[i], key) == 0) return members.values[i];
    }
    return nullptr;
}

}  // namespace

yajl_val find(yajl_val object, std::initializer_list<const char*> path, yajl_type type) noexcept {
    for (const char* const key : path)
        object = member(object, key);
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

}  // namespace jovu
