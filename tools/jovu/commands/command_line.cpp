// SPDX-License-Identifier: Apache-2.0
#include "commands/command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <utility>

#include "cli/failure.h"
#include "cli/suggestions.h"
#include "jovu/version.h"

namespace jovu_cli {
namespace {

constexpr const char* kPurpose =
    "Control USB machine controllers: show their state, send commands, gcode and print jobs.";

constexpr const char* kNotes =
    "With --json, standard output carries JSON only; commands that report repeatedly write one\n"
    "object per line. Errors and diagnostics go to standard error.\n"
    "With several devices attached, -d, -s or --port chooses one; without them JOVU_DEVICE does, "
    "if\n"
    "it is set: an address, a port or a serial number. The others are left to other programs.\n"
    "With --fleet, or its URL in JOVU_FLEET, the devices are those of a message broker. There -s\n"
    "takes patterns such as 'JV*' and may be repeated; each device has its own line of results.\n";

constexpr const char* kCommonOptionsNote =
    "Options of every command, such as -d and --json: see jovu --help.";

void add_common_options(CLI::App& app, CommonOptions& options) {
    CLI::Option* const device =
        app.add_option_function<std::string>(
               "-d,--device",
               [&options](const std::string& value) {
                   options.device = parse_address(value);
                   if (!options.device) {
                       throw CLI::ValidationError("not a device address BUS:ADDR: " + value);
                   }
               },
               "Use the device at this address, 0 to 255 each")
            ->type_name("BUS:ADDR");
    CLI::Option* const serial =
        app.add_option_function<std::vector<std::string>>(
               "-s,--serial",
               [&options](const std::vector<std::string>& values) {
                   if (std::count(values.begin(), values.end(), "") > 0) {
                       throw CLI::ValidationError("a serial number must not be empty");
                   }
                   options.serial = values.front();
                   options.serials = values;
               },
               "Use the device with this serial number; with --fleet also a pattern")
            ->type_name("SERIAL")
            ->allow_extra_args(false)
            ->excludes(device);
    app.add_option_function<std::string>(
           "--port",
           [&options](const std::string& value) {
               if (!is_port(value)) {
                   throw CLI::ValidationError("not a port BUS-PORT[.PORT...]: " + value);
               }
               options.port = value;
           },
           "Use the device that is plugged in there, such as 1-2.3")
        ->type_name("PORT")
        ->excludes(device)
        ->excludes(serial);
    add_seconds_option(app, "--wait-device", options.wait_device,
                       "Wait for a device to appear, 0 to 604800");
    add_seconds_option(app, "--timeout", options.timeout,
                       "Wait this long for a response, 0.01 to 604800",
                       std::chrono::milliseconds(10));
    app.add_flag("--json", options.json, "Write JSON, for programs");
    app.add_flag("-v,--verbose", options.verbose, "Show the library's diagnostic lines");
    app.add_flag("-q,--quiet", options.quiet, "Show results and errors, no progress");
}

void add_fleet_options(CLI::App& app, FleetOptions& fleet) {
    const auto add = [&app](const char* name, auto& target, const char* type,
                            const char* description) {
        auto* const option = app.add_option(name, target, description)->type_name(type);
        option->group("Devices behind a message broker");
    };
    add("--fleet", fleet.url, "BROKER-URL",
        "Use the devices behind this broker, mqtts://HOST[:PORT][/PREFIX]");
    add("--fleet-user", fleet.user, "USER", "User name for the broker");
    add("--fleet-password-file", fleet.password_file, "FILE", "File with the user's password");
    add("--fleet-ca", fleet.ca_file, "FILE", "Trust these certificates, not the system's");
    add("--fleet-cert", fleet.certificate_file, "FILE", "Certificate of this client");
    add("--fleet-key", fleet.key_file, "FILE", "Key of that certificate");
    app.add_flag("--fleet-plain-text", fleet.plain_text,
                 "Permit mqtt:// to another machine; needs --fleet-user")
        ->group("Devices behind a message broker");
    app.add_flag("--all", fleet.all, "Use all devices of the fleet")
        ->group("Devices behind a message broker");
    add("--request-id", fleet.request_id, "ID",
        "Ask for the outcome of an earlier request, with the same arguments");
}

/// Checks the options of a fleet against the command and the other options.
void check_fleet(const CommonOptions& options, const Command& command) {
    const FleetOptions& fleet = options.fleet;
    if (fleet.url.empty()) {
        if (fleet.all || !fleet.request_id.empty() || options.serials.size() > 1) {
            throw Failure(ExitCode::usage,
                          "--all, --request-id and several serial numbers need --fleet",
                          "without --fleet a command uses one local device");
        }
        return;
    }
    if (command.fleet == FleetUse::none) {
        std::string available;
        for (const Command& other : command_table()) {
            if (other.fleet == FleetUse::works) {
                available += (available.empty() ? "" : ", ") + std::string(other.name);
            }
        }
        throw Failure(ExitCode::usage,
                      std::string("'") + command.name + "' is not available with --fleet",
                      "it needs a local device; available are " + available +
                          "; an empty --fleet '' ignores JOVU_FLEET");
    }
    if (command.fleet == FleetUse::works &&
        (options.device || !options.port.empty() || options.wait_device)) {
        throw Failure(ExitCode::usage,
                      "-d, --port and --wait-device concern local devices, not those of a fleet",
                      "-s and --all choose; an empty --fleet '' ignores JOVU_FLEET");
    }
    if (fleet.all && !options.serials.empty()) {
        throw Failure(ExitCode::usage, "--all and -s exclude each other");
    }
}

/// @return where the help of a command is, for the end of an error.
std::string see_help(const std::string& help, const std::string& command) {
    return "see '" + help + " " + command + "'";
}

/// Adds the pointer to the command's help to an error of its arguments that has no hint.
Run with_help_hint(Run run, const std::string& hint) {
    return [run = std::move(run), hint](const Context& context) {
        try {
            run(context);
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::usage || !failure.hint().empty()) {
                throw;
            }
            throw Failure(ExitCode::usage, failure.what(), hint);
        }
    };
}

Failure usage_failure(const CLI::App& app, const CLI::ParseError& error, const std::string& help) {
    std::string hint = "see jovu --help";
    if (!app.get_subcommands().empty()) {
        hint = see_help(help, app.get_subcommands().front()->get_name());
    } else {
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

std::optional<FleetContext> fleet_context(const Context& context) {
    if (context.options.fleet.url.empty()) {
        return std::nullopt;
    }
    if (context.session != nullptr) {
        throw Failure(ExitCode::usage, "--fleet is not available in the shell");
    }
    return FleetContext{context.options, context.out, context.stop};
}

std::vector<std::string> command_names() {
    std::vector<std::string> names;
    for (const Command& command : command_table()) {
        names.emplace_back(command.name);
    }
    return names;
}

const std::vector<Command>& command_table() {
    static const std::vector<Command> table = {
        kListCommand,   kInfoCommand,     kStatusCommand, kMonitorCommand, kGcodeCommand,
        kPushCommand,   kPauseCommand,    kResumeCommand, kAbortCommand,   kWaitCommand,
        kEventsCommand, kCommandsCommand, kCallCommand,   kTraceCommand,   kShellCommand,
        kDfuCommand,    kUpdateCommand,   kHelpCommand,
    };
    return table;
}

std::map<const CLI::App*, Run> define_command_line(CLI::App& app, CommonOptions& options) {
    app.name("jovu");
    app.description(kPurpose);
    app.set_version_flag("--version", "jovu " JOVU_VERSION, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    add_common_options(app, options);
    add_fleet_options(app, options.fleet);
    app.require_subcommand(1);

    std::map<const CLI::App*, Run> runs;
    for (const Command& command : command_table()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        sub->fallthrough();
        sub->group("Commands");
        runs[sub] = command.define(*sub);
    }
    app.footer(kNotes);  // Last: a command inherits the footer that is there when it is added.
    return runs;
}

Request parse_command_line(int argc, const char* const* argv, const std::string& help,
                           const std::string& fleet_url) {
    Request request;
    request.options.fleet.url = fleet_url;
    CLI::App app;
    const std::map<const CLI::App*, Run> runs = define_command_line(app, request.options);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.footer("\n" + app.get_footer() + "\n" + exit_code_help());
    for (CLI::App* const sub : app.get_subcommands({})) {
        const std::string own = sub->get_footer();
        sub->footer((own.empty() ? "" : own + "\n\n") + kCommonOptionsNote);
    }
    try {
        std::vector<std::string> arguments = protected_arguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end());  // The parser takes them from the end.
        app.parse(std::move(arguments));
        const CLI::App* const sub = app.get_subcommands().front();
        const std::string hint = see_help(help, sub->get_name());
        if (request.options.verbose && request.options.quiet) {
            throw Failure(ExitCode::usage, "--verbose and --quiet exclude each other", hint);
        }
        const std::vector<Command>& table = command_table();
        check_fleet(request.options,
                    *std::find_if(table.begin(), table.end(), [sub](const Command& command) {
                        return command.name == sub->get_name();
                    }));
        request.run = with_help_hint(runs.at(sub), hint);
    } catch (const CLI::CallForHelp&) {
        request.message = app.help();
    } catch (const CLI::CallForVersion& version) {
        request.message = std::string(version.what()) + "\n";
    } catch (const CLI::ParseError& error) {
        throw usage_failure(app, error, help);
    }
    return request;
}

}  // namespace jovu_cli
