#include "commands/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <utility>

#include "cli/failure.h"
#include "cli/suggestions.h"

namespace jovu_cli {
namespace {

constexpr const char* kPurpose =
    "Control USB machine controllers: show their state, send commands, gcode and print jobs.";

constexpr const char* kNotes =
    "With --json, standard output carries JSON only; commands that report repeatedly write one\n"
    "object per line. Errors and diagnostics go to standard error.\n";

constexpr const char* kCommonOptionsNote =
    "Options of every command, such as -d and --json: see jovu --help.";

void add_common_options(CLI::App& app, CommonOptions& options) {
    app.add_option_function<std::string>(
           "-d,--device",
           [&options](const std::string& value) {
               options.device = parse_address(value);
               if (!options.device) {
                   throw CLI::ValidationError("not a device address BUS:ADDR: " + value);
               }
           },
           "Use this device, 0 to 255 each; needed with several")
        ->type_name("BUS:ADDR");
    add_seconds_option(app, "--wait-device", options.wait_device,
                       "Wait for a device to appear, 0 to 604800");
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
        // The parser's own message for these does not name the argument.
        const std::vector<std::string> arguments = app.remaining();
        if (!arguments.empty()) {
            const std::string near = did_you_mean(arguments.front(), command_names());
            return Failure(ExitCode::usage, "unknown command or option: " + arguments.front(),
                           near.empty() ? hint : near);
        }
        if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
            return Failure(ExitCode::usage, "no command given", hint);
        }
    }
    std::string what = error.what();
    std::replace(what.begin(), what.end(), '\n', ' ');
    return Failure(ExitCode::usage, what, hint);
}

/// The arguments of a command line. CLI11 splits an argument "[a,b]" in a list of positionals into
/// two values; a trailing blank prevents that and has no effect on a line of gcode.
std::vector<std::string> protected_arguments(int argc, const char* const* argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto gcode = std::find(arguments.begin(), arguments.end(), "gcode");
    for (auto argument = gcode; argument != arguments.end(); ++argument) {
        const std::string& before = *(argument - (argument == gcode ? 0 : 1));
        const bool names_file = before == "-f" || before == "--file";
        if (!names_file && argument->size() > 1 && argument->front() == '[' &&
            argument->back() == ']') {
            *argument += ' ';
        }
    }
    return arguments;
}

}  // namespace

const std::vector<Command>& command_table() {
    static const std::vector<Command> table = {
        kListCommand,  kInfoCommand,   kStatusCommand,   kMonitorCommand,
        kGcodeCommand, kPushCommand,   kPauseCommand,    kResumeCommand,
        kAbortCommand, kEventsCommand, kCommandsCommand, kCallCommand,
        kTraceCommand, kShellCommand,  kDfuCommand,      kUpdateCommand,
    };
    return table;
}

Request parse_command_line(int argc, const char* const* argv) {
    Request request;
    CLI::App app(kPurpose, "jovu");
    app.set_version_flag("--version", "jovu " JOVU_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    add_common_options(app, request.options);
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.footer(std::string("\n") + kNotes + "\n" + exit_code_help());

    std::map<const CLI::App*, Run> runs;
    for (const Command& command : command_table()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->fallthrough();
        sub->group("Commands");
        sub->footer("");  // Otherwise it inherits the program's.
        runs[sub] = command.define(*sub);
        const std::string own = sub->get_footer();
        sub->footer((own.empty() ? "" : own + "\n\n") + kCommonOptionsNote);
    }
    try {
        std::vector<std::string> arguments = protected_arguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end());  // The parser takes them from the end.
        app.parse(std::move(arguments));
        request.run = runs.at(app.get_subcommands().front());
    } catch (const CLI::CallForHelp&) {
        request.message = app.help();
    } catch (const CLI::CallForVersion& version) {
        request.message = std::string(version.what()) + "\n";
    } catch (const CLI::ParseError& error) {
        throw usage_failure(app, error);
    }
    return request;
}

}  // namespace jovu_cli
