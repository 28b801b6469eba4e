/// @file
/// The firmware's commands as one table. The methods of JovuCommandInterface, the names on the wire
/// and the program's help follow from it.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <tuple>

#include "jovu/firmware_types.h"

namespace jovu {

/// One command: its place in the firmware's own table, its name, and a key for every argument.
template <class Result, class... Args>
struct CommandRow {
    int idx;
    std::string_view name;
    std::array<std::string_view, sizeof...(Args)> keys;
};

/// @tparam Result what the device returns, `void` for a return value that means nothing.
template <class Result, class... Args, class... Keys>
constexpr CommandRow<Result, Args...> command(int idx, std::string_view name, Keys... keys) {
    static_assert(sizeof...(Keys) == sizeof...(Args), "a command has one key per argument");
    return {idx, name, {std::string_view(keys)...}};
}

namespace catalogue {

using Text = std::shared_ptr<char>;

inline constexpr auto bio_get_version = command<Text>(0, "bio_get_version");
inline constexpr auto bio_get_serial = command<Text>(1, "bio_get_serial");
inline constexpr auto gcode_process_command =
    command<gcode_process_result_t, Text>(5, "gcode_process_command", "command");

/// Every row, in the order of the firmware's indices.
inline constexpr auto all = std::make_tuple(bio_get_version, bio_get_serial, gcode_process_command);

namespace detail {

template <class... Rows>
constexpr bool well_formed(const std::tuple<Rows...>& rows) {
    constexpr std::size_t count = sizeof...(Rows);
    return std::apply(
        [](const auto&... row) {
            const std::array<int, count> indices{row.idx...};
            const std::array<std::string_view, count> names{row.name...};
            for (std::size_t i = 0; i < count; ++i) {
                if (i > 0 && indices[i] <= indices[i - 1]) return false;
                for (std::size_t j = 0; j < i; ++j) {
                    if (names[i] == names[j]) return false;
                }
            }
            return true;
        },
        rows);
}

}  // namespace detail

static_assert(detail::well_formed(all), "indices ascend and names are unique");

}  // namespace catalogue
}  // namespace jovu
