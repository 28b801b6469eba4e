#include "json/byte_text.h"

#include <cstddef>
#include <vector>

#include "json/json.h"

namespace jovu {

std::shared_ptr<char> read_byte_text(yajl_val array) {
    if (!YAJL_IS_ARRAY(array)) return nullptr;
    const std::size_t length = array->u.array.len;
    auto text = std::make_shared<std::vector<char>>(length + 1, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        const yajl_val element = array->u.array.values[i];
        if (!YAJL_IS_NUMBER(element)) return nullptr;
        (*text)[i] = static_cast<char>(integer_of(element));
    }
    return {text, text->data()};
}

}  // namespace jovu
