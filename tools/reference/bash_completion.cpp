// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "reference/program.h"

namespace reference {
namespace {

/// The statement that offers the values; empty for none.
std::string statement_for(const Values& values, const std::string& f) {
    switch (values.kind) {
        case Values::Kind::none:
            return "";
        case Values::Kind::words:
            return f + "_offer " + single_quoted(joined(values.words));
        case Values::Kind::keys:
            return f + "_keys";
        case Values::Kind::files:
            return "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")";
        case Values::Kind::programs:
            return "_command_offset \"$cword\"";
        case Values::Kind::devices:
            return f + "_offer \"$(" + f + "_devices " + values.field + ")\"";
    }
    return "";
}

std::string option_names(const Command& command) {
    std::vector<std::string> names;
    for (const Entry& option : command.options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
    }
    return joined(names);
}

/// The cases of a command's options with values, by "COMMAND,OPTION".
std::string option_cases(const Command& command, const std::string& label, const std::string& f) {
    std::string cases;
    for (const Entry& option : command.options) {
        if (option.value.empty()) {
            continue;
        }
        std::vector<std::string> patterns;
        for (const std::string& name : option.names) {
            patterns.push_back(joined({label, name}, ","));
        }
        const std::string statement = statement_for(option.values, f);
        cases += "        " + joined(patterns, " | ") + ") " +
                 (statement.empty() ? ":" : statement) + " ;;\n";
    }
    return cases;
}

std::string argument_cases(const Command& command, const std::string& f) {
    std::string cases;
    for (std::size_t i = 0; i < command.arguments.size(); ++i) {
        const Entry& entry = command.arguments[i];
        const std::string statement = statement_for(entry.values, f);
        if (!statement.empty()) {
            cases += "        " + command.name + "," +
                     (entry.repeated ? "*" : std::to_string(i + 1)) + ") " + statement + " ;;\n";
        }
    }
    return cases;
}

std::string keys_function(const Values& values, const std::string& f) {
    std::string cases;
    for (const auto& [name, keys] : values.keys) {
        const std::string offered = single_quoted(joined(keys));
        cases += joined({"        ", name, ") ", f, "_offer ", offered, " ;;\n"}, "");
    }
    return f + "_keys() {\n    if [[ $cur == *=* ]]; then return; fi\n    case $before in\n" +
           cases + "    esac\n    if [[ ${COMPREPLY-} == *= ]]; then compopt -o nospace; fi\n}\n\n";
}

}  // namespace

std::string bash_completion(const Program& program) {
    std::string f = "_" + program.main.name;
    std::replace(f.begin(), f.end(), '-', '_');
    std::string values = option_cases(program.main, "*", f);
    std::string arguments;
    std::string keys;
    std::string programs;
    std::vector<std::string> names;
    std::vector<std::string> with_value;
    std::string own;
    for (const Command& command : program.commands) {
        names.push_back(command.name);
        own +=
            "        " + command.name + ") own=" + single_quoted(option_names(command)) + " ;;\n";
        values += option_cases(command, command.name, f);
        arguments += argument_cases(command, f);
        for (const Entry& entry : command.arguments) {
            if (entry.values.kind == Values::Kind::keys) {
                keys += keys_function(entry.values, f);
            } else if (entry.values.kind == Values::Kind::programs) {
                programs += "    if [[ $command == " + command.name +
                            " && -n $first ]]; then _command_offset \"$first\"; return; fi\n";
            }
        }
    }
    std::vector<Command> all = program.commands;
    all.push_back(program.main);
    for (const Command& command : all) {
        for (const Entry& option : command.options) {
            if (!option.value.empty()) {
                with_value.insert(with_value.end(), option.names.begin(), option.names.end());
            }
        }
    }
    std::sort(with_value.begin(), with_value.end());
    with_value.erase(std::unique(with_value.begin(), with_value.end()), with_value.end());

    std::string script = "# bash completion for " + program.main.name +
                         ". Written by the build from its table of commands.\n\n";
    script +=
        "# The words that begin with what is typed, less the part that readline keeps: it\n"
        "# takes what follows a colon or an equals sign as a word of its own.\n" +
        f + R"(_offer() {
    local word kept=
    if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then kept=${cur%"${cur##*:}"}; fi
    for word in $1; do
        if [[ $word == "$cur"* ]]; then COMPREPLY+=("${word#"$kept"}"); fi
    done
}

)";
    if (!program.list_devices.empty()) {
        script += f + "_devices() { # FIELD\n    " + kListingOf + "\"${words[0]}\" " +
                  program.list_devices + " 2>/dev/null |\n        grep -oE \"\\\"$1\\\":\\\"" +
                  kSafeName + "\\\"\" | cut -d '\"' -f 4\n}\n\n";
    }
    script += keys;
    script += f + R"(() {
    local cur prev words cword
    COMPREPLY=()
    _get_comp_words_by_ref -n := cur prev words cword || return
    # The command, its first argument, where that stands, and how many arguments are before the cursor.
    local command= before= first= position=0 own i
    for ((i = 1; i < cword; ++i)); do
        case ${words[i]} in
            )" +
              joined(with_value, " | ") +
              R"() ((++i)) ;;
            --) first=${first:-$((i + 1))}; break ;;
            -?*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${words[i]}
                else
                    before=${before:-${words[i]}} first=${first:-$i}
                    ((++position))
                fi ;;
        esac
    done
)" + programs +
              R"(    if [[ $cur == --*=* ]]; then
        prev=${cur%%=*}
        cur=${cur#*=}
    fi
    case $command,$prev in
)" + values + R"(        *) prev= ;;
    esac
    if [[ -n $prev ]]; then return; fi
    case $command in
        '') own= ;;
)" + own + R"(    esac
    if [[ $cur == -* ]]; then
        )" + f +
              "_offer \"$own " + option_names(program.main) + R"("
        return
    fi
    if [[ -z $command ]]; then
        )" + f +
              "_offer " + single_quoted(joined(names)) + R"(
        return
    fi
    case $command,$((position + 1)) in
)" + arguments +
              R"(    esac
}

complete -F )" +
              f + " " + program.main.name + "\n";
    return script;
}

}  // namespace reference
