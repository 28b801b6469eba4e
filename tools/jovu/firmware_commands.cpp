#include "firmware_commands.h"

#include <algorithm>
#include <cstddef>
#include <tuple>
#include <utility>

#include "commands/catalogue.h"
#include "failure.h"
#include "firmware_values.h"
#include "near_names.h"

namespace jovu_cli {
namespace {

/// The commands that answer into a buffer.
constexpr std::string_view value_keepers[] = {"heater_param_get", "heater_var_get", "sd_mmc_read"};

template <std::size_t index, std::size_t... argument>
Json call_row(JovuCommandInterface& commands, JovuDeviceAddress address, const Json& arguments,
              std::index_sequence<argument...> /*arguments*/) {
    constexpr const auto& row = std::get<index>(jovu::catalogue);
    using Row = std::decay_t<decltype(row)>;
    const auto call = [&] {
        return (commands.*row.method)(
            address, value_from<std::tuple_element_t<argument, typename Row::Arguments>>(
                         arguments.at(std::string(row.keys[argument])))...);
    };
    if constexpr (std::is_void_v<typename Row::Result>) {
        call();
        return {};
    } else {
        return json_from(call());
    }
}

template <std::size_t index, std::size_t... argument>
FirmwareCommand make_command(std::index_sequence<argument...> /*arguments*/) {
    constexpr const auto& row = std::get<index>(jovu::catalogue);
    using Row = std::decay_t<decltype(row)>;
    return {row.idx,
            row.name,
            row.summary,
            {NamedType{std::string(row.keys[argument]),
                       describe<std::tuple_element_t<argument, typename Row::Arguments>>()}...},
            describe<typename Row::Result>(),
            std::find(std::begin(value_keepers), std::end(value_keepers), row.name) !=
                std::end(value_keepers),
            [](JovuCommandInterface& commands, JovuDeviceAddress address, const Json& arguments) {
                return call_row<index>(commands, address, arguments,
                                       std::index_sequence<argument...>());
            }};
}

template <std::size_t... index>
std::vector<FirmwareCommand> make_commands(std::index_sequence<index...> /*rows*/) {
    std::vector<FirmwareCommand> commands;
    commands.reserve(sizeof...(index));
    (commands.push_back(make_command<index>(
         std::make_index_sequence<std::get<index>(jovu::catalogue).keys.size()>())),
     ...);
    return commands;
}

}  // namespace

const std::vector<FirmwareCommand>& firmware_commands() {
    static const std::vector<FirmwareCommand> commands =
        make_commands(std::make_index_sequence<jovu::kCommandCount>());
    return commands;
}

const FirmwareCommand& firmware_command(const std::string& name) {
    const std::vector<FirmwareCommand>& commands = firmware_commands();
    const auto found =
        std::find_if(commands.begin(), commands.end(),
                     [&](const FirmwareCommand& command) { return command.name == name; });
    if (found != commands.end()) {
        return *found;
    }
    const std::string near = did_you_mean(name, firmware_command_names());
    throw Failure(ExitCode::usage, "the firmware has no command: " + name,
                  near.empty() ? "'jovu commands' lists them" : near);
}

std::vector<std::string> firmware_command_names() {
    std::vector<std::string> names;
    for (const FirmwareCommand& command : firmware_commands()) {
        names.emplace_back(command.name);
    }
    return names;
}

}  // namespace jovu_cli
