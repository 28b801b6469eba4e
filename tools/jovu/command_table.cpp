#include "command_table.h"

#include <algorithm>
#include <map>
#include <memory>

#include "exit_codes.h"
#include "failure.h"
#include "printable.h"

namespace jovu_cli {
namespace {

constexpr const char* description =
    "Talks to USB machine controllers: looks at them, sends them gcode and print jobs.";

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

std::string on_one_line(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
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
    CLI::App app(description, "jovu");
    app.set_version_flag("--version", "jovu " JOVU_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    add_common_options(app, request.options);
    app.require_subcommand(1);
    app.footer(std::string("\n") + notes + "\n" + exit_code_help());

    std::map<const CLI::App*, Run> runs;
    for (const Command& command : command_table()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->fallthrough();
        runs[sub] = command.define(*sub);
        const std::string own = sub->get_footer();
        sub->footer((own.empty() ? "" : own + "\n\n") + common_options_note);
    }
    try {
        app.parse(argc, argv);
        request.run = runs.at(app.get_subcommands().front());
    } catch (const CLI::CallForHelp&) {
        request.text = app.help();
    } catch (const CLI::CallForVersion& version) {
        request.text = std::string(version.what()) + "\n";
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitCode::usage, printable(on_one_line(error.what())), "see jovu --help");
    }
    return request;
}

}  // namespace jovu_cli
