// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cctype>
#include <sstream>

#include "reference/program.h"

namespace reference {
namespace {

/// One line of text, so that no character of it is an instruction.
std::string roff_escaped(const std::string& line) {
    std::string result;
    for (const char c : line) {
        result += c == '\\'  ? std::string("\\e")
                  : c == '-' ? std::string("\\-")
                             : std::string(1, c);
    }
    return result.empty() || (result[0] != '.' && result[0] != '\'') ? result : "\\&" + result;
}

/// An argument of an instruction: quoted, as blanks and punctuation would end it.
std::string argument(const std::string& word) {
    return "\"" + roff_escaped(word) + "\"";
}

/// Filled text: a sentence begins a line, so that the formatter knows where it ends.
std::string filled(const std::string& text) {
    constexpr std::size_t kWidth = 78;
    std::istringstream words(text);
    std::string result;
    std::string line;
    for (std::string word; words >> word;) {
        if (!line.empty() && line.size() + 1 + word.size() > kWidth) {
            result += roff_escaped(line) + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        if (word.back() == '.') {
            result += roff_escaped(line) + "\n";
            line.clear();
        }
    }
    return line.empty() ? result : result + roff_escaped(line) + "\n";
}

/// Paragraphs; runs of indented lines are shown as they are.
std::string paragraphs(const std::string& text) {
    std::string result;
    std::string pending;
    bool literal = false;
    bool open = false;  // whether a paragraph is needed before the next text
    std::istringstream lines(text);
    const auto flush = [&] {
        if (!pending.empty()) {
            result += (open ? ".Pp\n" : "") + filled(pending);
            pending.clear();
            open = true;
        }
    };
    for (std::string line; std::getline(lines, line);) {
        const bool indented = !line.empty() && line[0] == ' ';
        if (indented != literal) {
            flush();
            result += indented ? ".Bd -literal -offset indent\n" : ".Ed\n";
            literal = indented;
        }
        if (literal) {
            result += roff_escaped(line.substr(line.find_first_not_of(' '))) + "\n";
        } else if (line.empty()) {
            flush();
        } else {
            pending += line + "\n";
        }
    }
    flush();
    return result + (literal ? ".Ed\n" : "");
}

/// "-d, --device BUS:ADDR" as arguments of an instruction.
std::string option_words(const std::vector<std::string>& names, const Entry& option) {
    std::string words;
    for (const std::string& name : names) {
        words += (words.empty() ? "Fl " : " , Fl ") + argument(name.substr(1));
    }
    return option.value.empty() ? words : words + " Ar " + argument(option.value);
}

std::string argument_words(const Entry& entry) {
    const std::string words =
        "Ar " + argument(entry.value) + (entry.repeated ? std::string(" ...") : "");
    return entry.required ? words : "Op " + words;
}

std::string entries(const Command& command, bool with_help) {
    std::string items;
    for (const Entry& entry : command.arguments) {
        items += ".It Ar " + argument(entry.value) + "\n" + filled(entry.description + ".");
    }
    for (const Entry& entry : command.options) {
        if (with_help || entry.names.back() != "--help") {
            items +=
                ".It " + option_words(entry.names, entry) + "\n" + filled(entry.description + ".");
        }
    }
    return items.empty() ? "" : ".Bl -tag -width Ds\n" + items + ".El\n";
}

std::string commands(const Program& program) {
    std::string text;
    for (const Command& command : program.commands) {
        text += ".Ss " + roff_escaped(command.name) + "\n.Bd -ragged -compact\n.Nm\n.Cm " +
                roff_escaped(command.name) + "\n";
        for (const Entry& option : command.options) {
            if (option.names.back() != "--help") {
                text += ".Op " + option_words({option.names.back()}, option) + "\n";
            }
        }
        for (const Entry& entry : command.arguments) {
            text += "." + argument_words(entry) + "\n";
        }
        text += ".Ed\n.Pp\n" + filled(command.summary + ".");
        if (!command.details.empty()) {
            text += ".Pp\n" + paragraphs(command.details);
        }
        text += entries(command, false);
    }
    return text;
}

}  // namespace

std::string man_page(const Program& program, const std::string& date) {
    const std::string& name = program.main.name;
    std::string title = name;
    std::transform(title.begin(), title.end(), title.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::string summary = program.main.summary;
    summary[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(summary[0])));
    std::string page = ".\\\" Written by the build from the program's table of commands.\n.Dd " +
                       date + "\n.Dt " + title + " 1\n.Os \"" + name + " " + program.version +
                       "\"\n.Sh NAME\n.Nm " + name + "\n.Nd " + roff_escaped(summary) +
                       "\n.Sh SYNOPSIS\n.Nm\n.Op Ar option ...\n.Ar command\n.Op Ar argument "
                       "...\n.Sh DESCRIPTION\n" +
                       filled(program.main.summary + ".");
    if (!program.main.details.empty()) {
        page += ".Pp\n" + paragraphs(program.main.details);
    }
    page += entries(program.main, true) + ".Sh COMMANDS\n" + commands(program);
    for (const Section& section : program.sections) {
        page += ".Sh " + section.title + "\n" + section.text;
    }
    return page;
}

}  // namespace reference
