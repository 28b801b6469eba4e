#include "firmware/values.h"

namespace jovusim {

namespace {
constexpr int kByteMin = -128;
constexpr int kByteMax = 127;
}  // namespace

Json string_to_json(const std::string& text) {
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<int>(static_cast<signed char>(c)));
    array.push_back(0);
    return array;
}

std::optional<std::string> check_string(const Json& value) {
    if (!value.is_array()) return "is not an array";
    if (value.empty()) return "is an empty array without the terminating 0";
    for (std::size_t i = 0; i < value.size(); ++i) {
        const Json& element = value[i];
        const std::string where = "element " + std::to_string(i) + " ";
        if (!element.is_number_integer()) return where + "is not an integer";
        if (element < kByteMin || element > kByteMax) {
            return where + "is " + element.dump() + ", outside -128..127";
        }
        const bool last = i + 1 == value.size();
        if (last && element != 0) return where + "is the last one and not 0";
        if (!last && element == 0) return where + "is 0 before the end";
    }
    return std::nullopt;
}

std::optional<std::string> string_from_json(const Json& value) {
    if (check_string(value)) return std::nullopt;
    std::string text;
    for (const Json& element : value)
        text += static_cast<char>(element.get<int>());
    text.pop_back();
    return text;
}

Json signed_field(std::string text, std::size_t size) {
    text.resize(size);
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<signed char>(c));
    return array;
}

Json unsigned_field(std::string text, std::size_t size) {
    text.resize(size);
    Json array = Json::array();
    for (const char c : text)
        array.push_back(static_cast<unsigned char>(c));
    return array;
}

std::string string_of_field(const Json& field) {
    std::string text;
    for (const Json& element : field) {
        if (element == 0) break;
        text += static_cast<char>(element.get<int>());
    }
    return text;
}

}  // namespace jovusim
