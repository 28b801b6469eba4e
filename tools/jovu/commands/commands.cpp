// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu commands`: lists the firmware's commands.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "commands/command.h"
#include "firmware/firmware_commands.h"
#include "firmware/value_strings.h"

namespace jovu_cli {
namespace {

struct CommandsOptions {
    std::string name;  ///< A command of the firmware; all when empty.
};

const char* kind_name(const ValueType& type) {
    switch (type.kind) {
        case Kind::nothing:
            return "nothing";
        case Kind::boolean:
            return "boolean";
        case Kind::integer:
            return "integer";
        case Kind::number:
            return "number";
        case Kind::string:
            return "text";
        case Kind::bytes:
            return type.holds_string ? "text" : "bytes";
        case Kind::buffer:
            return "buffer";
        case Kind::structure:
            return "structure";
    }
    return "";
}

Json described(const ValueType& type);

Json described(const std::vector<NamedType>& entries) {
    Json list = Json::array();
    for (const NamedType& entry : entries) {
        Json object = {{"key", entry.key}};
        object.update(described(entry.type));
        list.push_back(std::move(object));
    }
    return list;
}

Json described(const ValueType& type) {
    Json object = {{"type", type.name}, {"kind", kind_name(type)}};
    if (type.kind == Kind::integer) {
        object["lowest"] = type.lowest;
        object["highest"] = type.highest;
    } else if (type.kind == Kind::bytes) {
        object["size"] = type.size;
    } else if (type.kind == Kind::structure) {
        object["members"] = described(type.members);
    }
    return object;
}

Json described(const FirmwareCommand& command) {
    return {{"index", command.index},
            {"name", command.name},
            {"summary", command.summary},
            {"arguments", described(command.arguments)},
            {"result", described(command.result)}};
}

std::string padded(std::string value, std::size_t width) {
    value.resize(std::max(width, value.size()), ' ');
    return value;
}

/// "gpio_output_set(pin: gpio_name_t, value: bool) -> void"
std::string signature(const FirmwareCommand& command) {
    std::string line = std::string(command.name) + "(";
    for (const NamedType& argument : command.arguments) {
        line +=
            (line.back() == '(' ? "" : ", ") + argument.key + ": " + display_type(argument.type);
    }
    return line + ") -> " + display_type(command.result);
}

void print_types(Output& out, const std::vector<NamedType>& entries) {
    const auto paths = key_paths(entries);
    std::size_t key_width = 0;
    std::size_t type_width = 0;
    for (const auto& [path, type] : paths) {
        key_width = std::max(key_width, path.size());
        type_width = std::max(type_width, display_type(*type).size());
    }
    for (const auto& [path, type] : paths) {
        const std::string values = allowed_values(*type);
        const std::string name = display_type(*type);
        out.line("  " + padded(path, key_width) + "  " +
                 (values.empty() ? name : padded(name, type_width) + "  " + values));
    }
}

void print_details(Output& out, const FirmwareCommand& command) {
    out.line(signature(command));
    out.line(std::string(command.summary) + "; index " + std::to_string(command.index) + ".");
    if (command.keeps_value) {
        out.line("Returns a status; the value itself is not returned.");
    }
    if (!command.arguments.empty()) {
        out.line("");
        out.line("Arguments:");
        print_types(out, command.arguments);
    }
    if (command.result.kind == Kind::structure) {
        out.line("");
        out.line("Result:");
        print_types(out, command.result.members);
    }
}

void run_commands(const Context& context, const CommandsOptions& options) {
    if (!options.name.empty()) {
        const FirmwareCommand& command = firmware_command(options.name);
        if (context.out.json()) {
            context.out.object(described(command));
        } else {
            print_details(context.out, command);
        }
        return;
    }
    if (context.out.json()) {
        Json list = Json::array();
        for (const FirmwareCommand& command : firmware_commands()) {
            list.push_back(described(command));
        }
        context.out.object(list);
        return;
    }
    const std::size_t width = std::to_string(firmware_commands().back().index).size();
    for (const FirmwareCommand& command : firmware_commands()) {
        const std::string index = std::to_string(command.index);
        context.out.line(std::string(width - index.size(), ' ') + index + "  " +
                         signature(command));
    }
}

Run define_commands(CLI::App& app) {
    const auto options = std::make_shared<CommandsOptions>();
    app.add_option("NAME", options->name, "Show this command in detail")->type_name("");
    app.footer("Lists the commands for 'jovu call'. Needs no device.");
    return [options](const Context& context) { run_commands(context, *options); };
}

}  // namespace

const Command kCommandsCommand{"commands", "List the firmware's commands", define_commands,
                               FleetUse::irrelevant};

}  // namespace jovu_cli
