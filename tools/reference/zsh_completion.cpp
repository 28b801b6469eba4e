// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "reference/program.h"

namespace reference {
namespace {

/// A part of a specification of _arguments, which colons and brackets would end.
std::string spec_escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += c == ':' || c == '[' || c == ']' || c == '\\' ? std::string("\\") + c
                                                                : std::string(1, c);
    }
    return result;
}

std::string action(const Values& values, const std::string& f) {
    switch (values.kind) {
        case Values::Kind::none:
            return " ";
        case Values::Kind::words:
            return "(" + joined(values.words) + ")";
        case Values::Kind::keys:
            return f + "_keys";
        case Values::Kind::files:
            return "_files";
        case Values::Kind::programs:
            return f + "_program";
        case Values::Kind::devices:
            return f + "_devices " + values.field;
    }
    return "";
}

/// One specification for each name of an option.
std::string option_specs(const Entry& option, const std::string& f, const std::string& indent) {
    std::string specs;
    for (const std::string& name : option.names) {
        std::string spec = "(" + joined(option.names) + ")" + name;
        if (!option.value.empty()) {
            spec += name[1] == '-' ? "=" : "+";
        }
        spec += "[" + spec_escaped(option.description) + "]";
        if (!option.value.empty()) {
            spec += ":" + spec_escaped(option.value) + ":" + action(option.values, f);
        }
        specs += indent + single_quoted(spec) + "\n";
    }
    return specs;
}

std::string argument_specs(const Command& command, const std::string& f) {
    std::string specs;
    for (std::size_t i = 0; i < command.arguments.size(); ++i) {
        const Entry& entry = command.arguments[i];
        const bool program = entry.values.kind == Values::Kind::programs;
        const std::string place = program ? "(-)*::"
                                  : entry.repeated
                                      ? "*:"
                                      : std::to_string(i + 1) + (entry.required ? ":" : "::");
        specs += "                " +
                 single_quoted(place + spec_escaped(entry.value) + ":" + action(entry.values, f)) +
                 "\n";
    }
    return specs;
}

}  // namespace

std::string zsh_completion(const Program& program) {
    const std::string& name = program.main.name;
    std::string f = "_" + name;
    std::replace(f.begin(), f.end(), '-', '_');
    std::string common;
    for (const Entry& option : program.main.options) {
        common += option_specs(option, f, "        ");
    }
    std::string commands;
    std::string cases;
    std::string keys;
    std::string programs;
    for (const Command& command : program.commands) {
        commands += "        " + single_quoted(command.name + ":" + command.summary) + "\n";
        cases += "            " + command.name + ") specs=(\n";
        for (const Entry& option : command.options) {
            if (option.names.back() != "--help") {
                cases += option_specs(option, f, "                ");
            }
        }
        cases += argument_specs(command, f) + "            ) ;;\n";
        for (const Entry& entry : command.arguments) {
            if (entry.values.kind == Values::Kind::programs) {
                programs =
                    f +
                    "_program() {\n    if [[ $words[1] == -- ]]; then shift words; ((--CURRENT)); "
                    "fi\n    _normal\n}\n\n";
            }
            for (const auto& [before, words] : entry.values.keys) {
                const bool with_value = !words.empty() && words.front().back() == '=';
                keys += "        " + before + ") compadd " + (with_value ? "-S '' " : "") + "-- " +
                        joined(words) + " ;;\n";
            }
        }
    }
    std::string script =
        "#compdef " + name + "\n# Written by the build from the program's table of commands.\n\n";
    if (!program.list_devices.empty()) {
        script += f +
                  "_devices() { # OPTIONS-OF-COMPADD... FIELD\n    local -a names\n    "
                  "names=(${(f)\"$(" +
                  kListingOf + "$program " + program.list_devices +
                  " 2>/dev/null |\n        grep -oE \"\\\"$@[-1]\\\":\\\"" + kSafeName +
                  "\\\"\" | cut -d '\"' -f 4)\"})\n    compadd \"${@[1,-2]}\" -a names\n}\n\n";
    }
    if (!keys.empty()) {
        script += f + "_keys() { # by the first argument\n    case $words[2] in\n" + keys +
                  "    esac\n}\n\n";
    }
    script += programs + f + R"(() {
    local curcontext=$curcontext state line program=${(Q)words[1]}
    local -a common commands specs
    common=(
)" + common + R"(    )
    commands=(
)" + commands +
              R"(    )
    _arguments -C -s $common '1:command:->command' '*:: :->arguments' && return
    case $state in
        command) _describe -t commands command commands ;;
        arguments)
            curcontext=${curcontext%:*:*}:)" +
              name + R"(-$words[1]:
            case $words[1] in
)" + cases + R"(            esac
            _arguments -s -S $common $specs ;;
    esac
}

)" + f + " \"$@\"\n";
    return script;
}

}  // namespace reference
