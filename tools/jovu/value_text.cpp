#include "value_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "printable.h"

namespace jovu_cli {
namespace {

std::string scalar_text(const Json& value) {
    if (value.is_string()) {
        return printable(value.get_ref<const std::string&>());
    }
    if (value.is_null()) {
        return "-";
    }
    return value.dump();
}

using Row = std::pair<std::string, std::string>;

void flatten(const Json& value, const std::string& path, std::vector<Row>& rows) {
    if (!value.is_object()) {
        rows.emplace_back(path, scalar_text(value));
        return;
    }
    for (const auto& [key, member] : value.items()) {
        flatten(member, path.empty() ? key : path + "." + key, rows);
    }
}

}  // namespace

std::vector<std::string> value_lines(const Json& value) {
    std::vector<Row> rows;
    flatten(value, "", rows);
    std::size_t width = 0;
    for (const Row& row : rows) {
        width = std::max(width, row.first.size());
    }
    std::vector<std::string> lines;
    for (auto& [key, text] : rows) {
        if (width > 0) {
            key.resize(width + 2, ' ');
        }
        lines.push_back(key + text);
    }
    return lines;
}

}  // namespace jovu_cli
