// SPDX-License-Identifier: Apache-2.0

/// @file
/// A program's command line as data, for its manual page and its completion in shells.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace reference {

/// What a shell offers for a value.
struct Values {
    enum class Kind {
        none,      ///< Nothing: a number, a time, a line of gcode.
        words,     ///< One of `words`.
        keys,      ///< One of `keys[PREVIOUS]`, of which each may be followed by a value.
        files,     ///< A file.
        programs,  ///< A program, with its own arguments.
        devices,   ///< The attached devices: the member `field` of each.
    };
    Kind kind = Kind::none;
    std::vector<std::string> words{};
    std::map<std::string, std::vector<std::string>> keys{};  ///< By the argument before.
    std::string field{};
};

/// An option, a flag or an argument.
struct Entry {
    std::vector<std::string> names;  ///< With their dashes, short ones first; empty for arguments.
    std::string value;               ///< The name of its value; empty for flags.
    std::string description;
    bool required = false;
    bool repeated = false;
    Values values;
};

/// A command of the program, or the program itself.
struct Command {
    std::string name;
    std::string summary;  ///< One line.
    std::string details;  ///< Paragraphs; indented lines are kept as they are.
    std::vector<Entry> options;
    std::vector<Entry> arguments;
};

/// A section of the manual page, in the words of mdoc(7).
struct Section {
    std::string title;
    std::string text;
};

/// A program.
struct Program {
    Command main;
    std::vector<Command> commands;
    std::string version;
    /// A shell command that prints the attached devices as JSON, without the program's name.
    std::string list_devices{};
    std::vector<Section> sections{};  ///< After those that are made from the above.
};

/// @return the values of an option or argument, by the name of its command (empty for the program)
///     and of its value.
using FindValues = std::function<Values(const std::string& command, const std::string& value)>;

/// Reads a parser: names, summaries, options, arguments.
Program read_program(const CLI::App& app, const std::string& version, const FindValues& find);

/// @name Writers
/// @{
/// @param date of the page, such as "May 3, 2026".
std::string man_page(const Program& program, const std::string& date);
std::string bash_completion(const Program& program);
std::string zsh_completion(const Program& program);
std::string fish_completion(const Program& program);
/// @}

/// The names of devices that a shell may insert. A device chooses its serial number: one with
/// characters that have a meaning for a shell is not offered.
constexpr const char* kSafeName = "[A-Za-z0-9._:-]+";

/// Before the program's name when a shell asks for the devices. The variable chooses one of them,
/// for a command line without the option that is being completed.
constexpr const char* kListingOf = "env -u JOVU_DEVICE timeout 2 ";

/// @return the string in single quotes, for any of the shells.
std::string single_quoted(const std::string& value);

/// @return the words, separated by a blank.
std::string joined(const std::vector<std::string>& words, const std::string& separator = " ");

/// The end of main(): writes a program's manual page and completions into a folder.
/// @param folder "FOLDER DATE" are the arguments of the program.
/// @return the exit status.
int write_reference(int argc, char** argv, const std::function<Program()>& describe);

}  // namespace reference
