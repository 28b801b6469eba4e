#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "exit_codes.h"
#include "failure.h"

namespace jovu_cli {
namespace {

constexpr const char* purpose =
    "Talks to USB machine controllers: looks at them, sends them gcode and print jobs.";

constexpr const char* notes =
    "With --json, standard output carries JSON and nothing else; commands that report over and\n"
    "over write one object per line. Errors and diagnostics go to standard error.\n";

constexpr const char* common_options_note =
    "Options of every command, such as -d and --json: see jovu --help.";

/// Adds an option that takes a time in seconds.
/// @param target takes the value; must live as long as the parser.
template <class Target>
CLI::Option* add_seconds_option(CLI::App& app, const std::string& names, Target& target,
                                const std::string& description) {
    const auto take = [&target](const std::string& text) {
        const std::optional<std::chrono::milliseconds> time = parse_seconds(text);
        if (!time) {
            throw CLI::ValidationError("not a time in seconds: " + text);
        }
        target = *time;
    };
    return app.add_option_function<std::string>(names, take, description)->type_name("SECONDS");
}

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

std::string describe(const CLI::App& app, const CLI::ParseError& error) {
    if (app.get_subcommands().empty()) {
        // The parser's own text for these does not name the word.
        const std::vector<std::string> words = app.remaining();
        if (!words.empty()) {
            return "unknown command or option: " + words.front();
        }
        if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
            return "no command given";
        }
    }
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
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

Run define_list(CLI::App& /*app*/) {
    return run_list;
}

Run define_info(CLI::App& /*app*/) {
    return run_info;
}

Run define_status(CLI::App& app) {
    const auto options = std::make_shared<StatusOptions>();
    CLI::Option* watch =
        app.add_flag("-w,--watch", options->watch, "Report again and again, until Ctrl-C");
    add_seconds_option(app, "--interval", options->interval, "Time between two reports [1]")
        ->needs(watch);
    return [options](const Context& context) { run_status(context, *options); };
}

Run define_gcode(CLI::App& app) {
    const auto options = std::make_shared<GcodeOptions>();
    CLI::Option* lines =
        app.add_option("LINE", options->lines, "Lines of gcode, or - for standard input")
            ->type_name("");
    CLI::Option* file =
        app.add_option("-f,--file", options->file, "Read the lines from a file")->type_name("FILE");
    app.add_flag("-k,--keep-going", options->keep_going, "Go on after a line that is refused");
    app.footer(
        "Comments (from ; on) and blank lines are skipped. Each line waits for the device's\n"
        "result; 0 means that it was carried out. What the device prints meanwhile is shown\n"
        "below the line.");
    app.callback([lines, file] {
        if ((lines->count() == 0) == (file->count() == 0)) {
            throw CLI::ValidationError("either LINE..., - or --file FILE is needed");
        }
    });
    return [options](const Context& context) { run_gcode(context, *options); };
}

Run define_push(CLI::App& app) {
    const auto options = std::make_shared<PushOptions>();
    app.add_option("FILE", options->file, "The job file")->required();
    app.add_flag("--wait", options->wait, "Follow the job to its end");
    app.footer(
        "The device is asked afterwards whether it has accepted the job. An interrupted push\n"
        "leaves it waiting for the rest; the message says how much it has got.");
    return [options](const Context& context) { run_push(context, *options); };
}

Run define_pause(CLI::App& app) {
    app.footer("A second pause lets the job go on. Shows the state that the device is in then.");
    return run_pause;
}

Run define_abort(CLI::App& app) {
    app.footer("Shows the state that the device is in then.");
    return run_abort;
}

Run define_events(CLI::App& app) {
    const auto options = std::make_shared<EventOptions>();
    app.footer("Prints debug texts and servo trace samples as they come, until Ctrl-C.");
    add_seconds_option(app, "-s,--seconds", options->limit, "Stop after this time");
    return [options](const Context& context) { run_events(context, *options); };
}

}  // namespace

const std::vector<Command>& command_table() {
    static const std::vector<Command> table = {
        {"list", "List the devices", define_list},
        {"info", "Show what a device is: versions, serial number, model", define_info},
        {"status", "Show what a device is doing", define_status},
        {"gcode", "Send lines of gcode", define_gcode},
        {"push", "Send a print job", define_push},
        {"pause", "Pause the print job", define_pause},
        {"abort", "Abort the print job", define_abort},
        {"events", "Print what a device reports of its own accord", define_events},
    };
    return table;
}

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
        throw Failure(ExitCode::usage, describe(app, error), "see jovu --help");
    }
    return request;
}

}  // namespace jovu_cli
