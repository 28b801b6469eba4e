#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "exit_codes.h"
#include "failure.h"
#include "near_names.h"
#include "seconds_option.h"

namespace jovu_cli {
namespace {

constexpr const char* purpose =
    "Talks to USB machine controllers: looks at them, sends them commands, gcode and print jobs.";

constexpr const char* notes =
    "With --json, standard output carries JSON and nothing else; commands that report over and\n"
    "over write one object per line. Errors and diagnostics go to standard error.\n";

constexpr const char* common_options_note =
    "Options of every command, such as -d and --json: see jovu --help.";

void add_common_options(CLI::App& app, CommonOptions& options) {
    app.add_option_function<std::string>(
           "-d,--device",
           [&options](const std::string& text) {
               options.device = parse_address(text);
               if (!options.device) {
                   throw CLI::ValidationError("not a device address BUS:ADDR: " + text);
               }
           },
           "The device to talk to; needed only when there are several")
        ->type_name("BUS:ADDR");
    add_seconds_option(app, "--wait-device", options.wait_device,
                       "How long to wait for a device to appear");
    app.add_flag("--json", options.json, "Write JSON, for programs");
}

std::vector<std::string> command_names() {
    std::vector<std::string> names;
    for (const Command& command : command_table()) {
        names.emplace_back(command.name);
    }
    return names;
}

Failure usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    std::string hint = "see jovu --help";
    if (app.get_subcommands().empty()) {
        // The parser's own text for these does not name the word.
        const std::vector<std::string> words = app.remaining();
        if (!words.empty()) {
            const std::string near = did_you_mean(words.front(), command_names());
            return Failure(ExitCode::usage, "unknown command or option: " + words.front(),
                           near.empty() ? hint : near);
        }
        if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
            return Failure(ExitCode::usage, "no command given", hint);
        }
    }
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return Failure(ExitCode::usage, text, hint);
}

/// The words of a command line. CLI11 takes a word "[a,b]" in a list of positionals for two values;
/// a blank behind it prevents that, and does not matter to a line of gcode.
std::vector<std::string> protected_words(int argc, const char* const* argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    const auto gcode = std::find(words.begin(), words.end(), "gcode");
    for (auto word = gcode; word != words.end(); ++word) {
        const std::string& before = *(word - (word == gcode ? 0 : 1));
        const bool names_file = before == "-f" || before == "--file";
        if (!names_file && word->size() > 1 && word->front() == '[' && word->back() == ']') {
            *word += ' ';
        }
    }
    return words;
}

}  // namespace

Request parse_command_line(int argc, const char* const* argv) {
    Request request;
    CLI::App app(purpose, "jovu");
    app.set_version_flag("--version", "jovu " JOVU_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    add_common_options(app, request.options);
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.footer(std::string("\n") + notes + "\n" + exit_code_help());

    std::map<const CLI::App*, Run> runs;
    for (const Command& command : command_table()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->fallthrough();
        sub->group("Commands");
        runs[sub] = command.define(*sub);
        const std::string own = sub->get_footer();
        sub->footer((own.empty() ? "" : own + "\n\n") + common_options_note);
    }
    try {
        std::vector<std::string> words = protected_words(argc, argv);
        std::reverse(words.begin(), words.end());  // The parser takes them from the end.
        app.parse(std::move(words));
        request.run = runs.at(app.get_subcommands().front());
    } catch (const CLI::CallForHelp&) {
        request.text = app.help();
    } catch (const CLI::CallForVersion& version) {
        request.text = std::string(version.what()) + "\n";
    } catch (const CLI::ParseError& error) {
        throw usage_failure(app, error);
    }
    return request;
}

}  // namespace jovu_cli
