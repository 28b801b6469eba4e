// SPDX-License-Identifier: Apache-2.0
#include "firmware/firmware_commands.h"

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "commands/catalogue.h"
#include "firmware/value_conversion.h"
#include "firmware/value_strings.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

/// The commands that return their value in a buffer.
constexpr std::string_view kCommandsWithBufferResult[] = {"heater_param_get", "heater_var_get",
                                                          "sd_mmc_read"};

template <std::size_t index, std::size_t... argument>
Json call_row(JovuCommandInterface& commands, JovuDeviceAddress address, const Json& arguments,
              std::index_sequence<argument...> /*arguments*/) {
    constexpr const auto& row = std::get<index>(jovu::catalogue);
    using Row = std::decay_t<decltype(row)>;
    const auto call = [&] {
        return (commands.*row.method)(
            address, value_from<std::tuple_element_t<argument, typename Row::Arguments>>(
                         // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): row is constant.
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
            std::find(std::begin(kCommandsWithBufferResult), std::end(kCommandsWithBufferResult),
                      row.name) != std::end(kCommandsWithBufferResult),
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

/// One argument KEY=VALUE.
struct Assignment {
    std::string key;  ///< "config.gains.kp"
    std::vector<std::string> path;
    std::string value;
    std::string argument;  ///< KEY=VALUE, for messages; names a file, not its content.
};

std::vector<std::string> split_path(const std::string& key) {
    std::vector<std::string> path;
    for (std::size_t begin = 0; begin <= key.size();) {
        const std::size_t end = std::min(key.find('.', begin), key.size());
        path.push_back(key.substr(begin, end - begin));
        begin = end + 1;
    }
    return path;
}

/// Collects the arguments of one command.
class Collector {
public:
    Collector(const FirmwareCommand& command, const FileReader& read_file)
        : command_(command), read_file_(read_file) {}

    void take(const std::vector<std::string>& arguments) {
        std::vector<Assignment> assignments;
        for (const std::string& argument : arguments) {
            Assignment assignment = split(argument);
            const bool twice = std::any_of(
                assignments.begin(), assignments.end(),
                [&](const Assignment& earlier) { return earlier.key == assignment.key; });
            if (twice) {
                fail(assignment.key + " is given twice");
            }
            assignments.push_back(std::move(assignment));
        }
        // Whole structures first: single members replace theirs.
        std::stable_sort(
            assignments.begin(), assignments.end(),
            [](const Assignment& a, const Assignment& b) { return a.path.size() < b.path.size(); });
        for (const Assignment& assignment : assignments) {
            put(assignment);
        }
    }

    void take(const Json& given) {
        if (!given.is_object()) {
            fail("the arguments are not a JSON object: " + excerpt(given), usage());
        }
        for (const auto& [key, value] : given.items()) {
            const NamedType* const argument = find_key(command_.arguments, key);
            if (argument == nullptr) {
                fail_unknown({key, {}, {}, excerpt(value)}, key, "", command_.arguments);
            }
            try {
                arguments_[key] = check_value(argument->type, value);
            } catch (const BadValue& bad) {
                const std::string member = bad.where().empty() ? "" : "." + bad.where();
                fail(key + member + " " + bad.what() + bad.quoted() + ": " + excerpt(value));
            }
        }
    }

    Json finish() {
        std::string missing;
        for (const NamedType& argument : command_.arguments) {
            if (!arguments_.contains(argument.key)) {
                missing += (missing.empty() ? "" : ", ") + argument.key;
            }
        }
        if (!missing.empty()) {
            fail("without " + missing, usage());
        }
        return std::move(arguments_);
    }

private:
    [[noreturn]] void fail(const std::string& what, const std::string& hint = {}) const {
        // Escape it here: the message of an exception ends at a NUL.
        throw Failure(ExitCode::usage, std::string(command_.name) + ": " + printable(what), hint);
    }

    std::string usage() const {
        if (command_.arguments.empty()) {
            return "it takes no arguments";
        }
        std::string keys = "it takes";
        for (const NamedType& argument : command_.arguments) {
            keys += " " + argument.key + "=" +
                    (argument.type.kind == Kind::structure ? "{...}" : "VALUE");
        }
        return keys;
    }

    /// @return the beginning of a value, for messages.
    static std::string excerpt(const Json& value) {
        constexpr std::size_t kLongest = 80;
        std::string shown = value.dump(-1, ' ', true);
        if (shown.size() > kLongest) {
            shown.resize(kLongest);
            shown += "...";
        }
        return shown;
    }

    Assignment split(const std::string& argument) const {
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos || equals == 0) {
            fail("not of the form KEY=VALUE: " + argument, usage());
        }
        const std::string key = argument.substr(0, equals);
        return {key, split_path(key), argument.substr(equals + 1), argument};
    }

    [[noreturn]] void fail_unknown(const Assignment& assignment, const std::string& step,
                                   const std::string& owner,
                                   const std::vector<NamedType>& entries) const {
        std::vector<std::string> keys;
        std::string all;
        for (const NamedType& entry : entries) {
            keys.push_back(entry.key);
            all += (all.empty() ? "" : ", ") + entry.key;
        }
        const std::string near = did_you_mean(step, keys);
        const std::string what = owner.empty() ? "no argument " + step : owner + " has no " + step;
        fail(what + ": " + assignment.argument, !near.empty() ? near
                                                : all.empty() ? "it takes no arguments"
                                                              : "it has: " + all);
    }

    void put(const Assignment& assignment) {
        const std::vector<NamedType>* entries = &command_.arguments;
        std::string owner;
        const ValueType* type = nullptr;
        Json* element = &arguments_;
        for (const std::string& step : assignment.path) {
            if (type != nullptr && type->kind != Kind::structure) {
                fail(owner + " has no members: " + assignment.argument);
            }
            const NamedType* const entry = find_key(*entries, step);
            if (entry == nullptr) {
                fail_unknown(assignment, step, owner, *entries);
            }
            owner += (owner.empty() ? "" : ".") + step;
            type = &entry->type;
            entries = &type->members;
            element = &(*element)[step];
        }
        try {
            *element = read_value(*type, resolved(assignment));
        } catch (const BadValue& bad) {
            const std::string member = bad.where().empty() ? "" : ": " + bad.where();
            fail(assignment.argument + member + " " + bad.what() +
                     (is_in_file(assignment) ? "" : bad.quoted()),
                 type->kind == Kind::structure && bad.where().empty() ? kStructureHint : "");
        }
    }

    static bool is_in_file(const Assignment& assignment) {
        const std::string& value = assignment.value;
        return value.compare(0, 1, "@") == 0 && value.compare(0, 2, "@@") != 0;
    }

    /// @return the value, read from its file when it names one.
    std::string resolved(const Assignment& assignment) const {
        const std::string& value = assignment.value;
        if (!is_in_file(assignment)) {
            return value.substr(value.compare(0, 2, "@@") == 0 ? 1 : 0);
        }
        if (value.size() == 1) {
            fail("no file is named: " + assignment.argument, "a value that begins with @ is @@...");
        }
        return read_file_(value.substr(1));
    }

    static constexpr const char* kStructureHint =
        "a structure is a JSON object, or given by its members, KEY.MEMBER=VALUE";

    const FirmwareCommand& command_;
    const FileReader& read_file_;
    Json arguments_ = Json::object();
};

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

Json read_arguments(const FirmwareCommand& command, const std::vector<std::string>& arguments,
                    const FileReader& read_file) {
    Collector collector(command, read_file);
    collector.take(arguments);
    return collector.finish();
}

Json read_arguments(const FirmwareCommand& command, const Json& given) {
    static const FileReader no_files;
    Collector collector(command, no_files);
    collector.take(given);
    return collector.finish();
}

}  // namespace jovu_cli
