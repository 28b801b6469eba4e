// SPDX-License-Identifier: Apache-2.0
#include "reference/program.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace reference {
namespace {

/// The first line; a sentence loses its period, as in a list.
std::string summary_of(const std::string& description) {
    std::string line = description.substr(0, description.find('\n'));
    if (!line.empty() && line.back() == '.') {
        line.pop_back();
    }
    return line;
}

std::string rest_of(const std::string& description) {
    const std::size_t end = description.find('\n');
    return end == std::string::npos ? "" : description.substr(end + 1);
}

Entry read_entry(const CLI::Option& option, const std::string& command, const FindValues& find) {
    Entry entry;
    for (const std::string& name : option.get_snames()) {
        entry.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        entry.names.push_back("--" + name);
    }
    entry.description = option.get_description();
    entry.required = option.get_required();
    entry.repeated = option.get_items_expected_max() > 1;
    if (option.get_positional()) {
        entry.value = option.get_single_name();
    } else if (option.get_items_expected_max() > 0) {
        // "UINT:UINT in [0 - 100]": the range belongs to the description.
        const std::string type = option.get_type_name();
        const std::size_t in = type.find(" in [");
        entry.value = type.substr(0, in == std::string::npos ? in : type.find(':'));
        if (in != std::string::npos) {
            std::string range = type.substr(in + 5, type.find(']') - in - 5);
            range.replace(range.find(" - "), 3, " to ");
            entry.description += ", " + range;
        }
        if (!option.get_default_str().empty()) {
            entry.description += "; " + option.get_default_str() + " by default";
        }
    }
    if (!entry.value.empty()) {
        entry.values = find(command, entry.value);
    }
    return entry;
}

Command read_command(const CLI::App& app, const std::string& name, const FindValues& find) {
    Command command;
    command.name = app.get_name();
    command.summary = summary_of(app.get_description());
    command.details = rest_of(app.get_description());
    if (!app.get_footer().empty()) {
        command.details += (command.details.empty() ? "" : "\n\n") + app.get_footer();
    }
    for (const CLI::Option* option : app.get_options()) {
        (option->get_positional() ? command.arguments : command.options)
            .push_back(read_entry(*option, name, find));
    }
    return command;
}

void write_file(const std::filesystem::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

}  // namespace

Program read_program(const CLI::App& app, const std::string& version, const FindValues& find) {
    Program program;
    program.main = read_command(app, "", find);
    program.version = version;
    for (const CLI::App* command : app.get_subcommands(std::function<bool(const CLI::App*)>{})) {
        program.commands.push_back(read_command(*command, command->get_name(), find));
    }
    return program;
}

std::string single_quoted(const std::string& value) {
    std::string result = "'";
    for (const char c : value) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string line;
    for (const std::string& word : words) {
        line += (line.empty() ? "" : separator) + word;
    }
    return line;
}

int write_reference(int argc, char** argv, const std::function<Program()>& describe) {
    try {
        if (argc != 3) {
            throw std::runtime_error("takes FOLDER DATE");
        }
        const Program program = describe();
        const std::filesystem::path folder = argv[1];
        const std::string& name = program.main.name;
        std::filesystem::create_directories(folder);
        write_file(folder / (name + ".1"), man_page(program, argv[2]));
        write_file(folder / (name + ".bash"), bash_completion(program));
        write_file(folder / ("_" + name), zsh_completion(program));
        write_file(folder / (name + ".fish"), fish_completion(program));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << argv[0] << ": " << error.what() << "\n";
        return 1;
    }
}

}  // namespace reference
