// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "reference/program.h"

namespace reference {
namespace {

/// A string in single quotes, in which fish knows a backslash too.
std::string fish_quoted(const std::string& value) {
    std::string result = "'";
    for (const char c : value) {
        result += (c == '\'' || c == '\\' ? "\\" : "") + std::string(1, c);
    }
    return result + "'";
}

/// The options of "complete" that offer the values.
std::string values_of(const Values& values, const std::string& f) {
    switch (values.kind) {
        case Values::Kind::none:
            return "";
        case Values::Kind::words:
            return " -a " + fish_quoted(joined(values.words));
        case Values::Kind::keys:
            return " -a '(" + f + "_keys)'";
        case Values::Kind::files:
            return " -F";
        case Values::Kind::programs:
            return " -a '(__fish_complete_subcommand --fcs-skip=2)'";
        case Values::Kind::devices:
            return " -a '(" + f + "_devices " + values.field + ")'";
    }
    return "";
}

std::string option_line(const std::string& start, const Entry& option, const std::string& f) {
    std::string line = start;
    for (const std::string& name : option.names) {
        line += name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (!option.value.empty()) {
        line += option.values.kind == Values::Kind::files ? " -r" : " -x";
        line += values_of(option.values, f);
    }
    return line + " -d " + fish_quoted(option.description) + "\n";
}

}  // namespace

std::string fish_completion(const Program& program) {
    const std::string& name = program.main.name;
    std::string f = "__" + name;
    std::replace(f.begin(), f.end(), '-', '_');
    const std::string start = "complete -c " + name;
    std::string lines = start + " -f\n";
    std::vector<std::string> with_value;
    for (const Entry& option : program.main.options) {
        lines += option_line(start, option, f);
        if (!option.value.empty()) {
            with_value.insert(with_value.end(), option.names.begin(), option.names.end());
        }
    }
    std::string keys;
    for (const Command& command : program.commands) {
        lines += joined({start, " -n '", f, "_at' -a ", command.name, " -d ",
                         fish_quoted(command.summary), "\n"},
                        "");
        for (const Entry& option : command.options) {
            if (option.names.back() != "--help") {
                const std::string in = joined({start, " -n '", f, "_in ", command.name, "'"}, "");
                lines += option_line(in, option, f);
            }
            if (!option.value.empty()) {
                with_value.insert(with_value.end(), option.names.begin(), option.names.end());
            }
        }
        for (std::size_t i = 0; i < command.arguments.size(); ++i) {
            const Entry& entry = command.arguments[i];
            const std::string values = values_of(entry.values, f);
            if (!values.empty()) {
                const std::string at = entry.repeated
                                           ? "_in " + command.name
                                           : "_at " + command.name + " " + std::to_string(i + 1);
                lines += joined({start, " -n '", f, at, "'", values, "\n"}, "");
            }
            for (const auto& [before, words] : entry.values.keys) {
                keys += "        case " + before + "\n            printf '%s\\n' " + joined(words) +
                        "\n";
            }
        }
    }
    std::string script =
        "# fish completion for " + name + ". Written by the build from its table of commands.\n\n";
    if (!program.list_devices.empty()) {
        script += "function " + f + "_devices # FIELD\n    " + kListingOf + name + " " +
                  program.list_devices + " 2>/dev/null | grep -oE '\"'$argv[1]'\":\"" + kSafeName +
                  "\"' | cut -d '\"' -f 4\nend\n\n";
    }
    script += "# The command and its arguments before the cursor.\nfunction " + f +
              "_words\n    set -l skip\n    for token in (commandline -opc)[2..]\n"
              "        if test -n \"$skip\"\n            set skip\n            continue\n"
              "        end\n        switch $token\n            case " +
              joined(with_value) +
              "\n                set skip 1\n            case '-*'\n            case '*'\n"
              "                echo $token\n        end\n    end\nend\n\n"
              "# COMMAND: whether the cursor is at one of its arguments.\nfunction " +
              f + "_in\n    set -l words (" + f +
              "_words)\n    test \"$words[1]\" = \"$argv[1]\"\nend\n\n"
              "# [COMMAND NUMBER]: whether it is at that argument of it, or at the command.\n"
              "function " +
              f + "_at\n    set -l words (" + f +
              "_words)\n    if not set -q argv[1]\n        test (count $words) -eq 0\n"
              "    else\n        test \"$words[1]\" = $argv[1] -a (count $words) -eq $argv[2]\n"
              "    end\nend\n\n";
    if (!keys.empty()) {
        script += "function " + f + "_keys # by the first argument\n    set -l words (" + f +
                  "_words)\n    switch \"$words[2]\"\n" + keys + "    end\nend\n\n";
    }
    return script + lines;
}

}  // namespace reference
