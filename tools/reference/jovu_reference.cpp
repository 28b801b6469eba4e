// SPDX-License-Identifier: Apache-2.0

/// @file
/// Writes the manual page of `jovu` and its completion, from the tables that the program runs on.
#include <CLI/CLI.hpp>
#include <stdexcept>

#include "cli/failure.h"
#include "commands/command.h"
#include "firmware/firmware_commands.h"
#include "jovu/version.h"
#include "reference/program.h"

namespace {

using reference::Values;

std::map<std::string, std::vector<std::string>> keys_of_commands() {
    std::map<std::string, std::vector<std::string>> keys;
    for (const jovu_cli::FirmwareCommand& command : jovu_cli::firmware_commands()) {
        for (const auto& [path, type] : jovu_cli::key_paths(command.arguments)) {
            keys[std::string(command.name)].push_back(path + "=");
        }
    }
    return keys;
}

Values find_values(const std::string& /*command*/, const std::string& value) {
    if (value == "FILE" || value == "IMAGE") {
        return {Values::Kind::files};
    }
    if (value == "BUS:ADDR") {
        return {Values::Kind::devices, {}, {}, "device"};
    }
    if (value == "SERIAL") {
        return {Values::Kind::devices, {}, {}, "serial"};
    }
    if (value == "PORT") {
        return {Values::Kind::devices, {}, {}, "port"};
    }
    if (value == "COMMAND") {
        return {Values::Kind::words, jovu_cli::command_names()};
    }
    if (value == "NAME") {
        return {Values::Kind::words, jovu_cli::firmware_command_names()};
    }
    if (value == "KEY=VALUE") {
        return {Values::Kind::keys, {}, keys_of_commands()};
    }
    if (value == "WHAT") {
        return {Values::Kind::words, {jovu_cli::kWaitGoals.begin(), jovu_cli::kWaitGoals.end()}};
    }
    for (const char* const free : {"SECONDS", "DISTANCE", "LINE", "SERVO", "VALUE", "BROKER-URL",
                                   "USER", "ID", "BYTES", "HEX"}) {
        if (value == free) {
            return {};
        }
    }
    throw std::logic_error("how is this value completed? " + value);
}

std::string exit_status() {
    std::string rows = ".Bl -tag -width 999 -compact\n";
    for (const jovu_cli::ExitCodeRow& row : jovu_cli::kExitCodes) {
        rows += ".It " + std::to_string(static_cast<int>(row.code)) + "\n" + row.meaning + "\n";
    }
    return rows + ".El\n";
}

reference::Program describe() {
    CLI::App app;
    jovu_cli::CommonOptions options;
    jovu_cli::define_command_line(app, options);
    reference::Program program = reference::read_program(app, JOVU_VERSION, find_values);
    program.list_devices = "list --attached --json";
    program.main.details += "\nThe options may stand before or after the command:";
    program.sections = {
        {"ENVIRONMENT",
         R"(.Bl -tag -width Ds
.It Ev JOVU_DEVICE
Chooses a device when no option does: an address, a port or a serial number.
.It Ev JOVU_FLEET
The URL of a message broker, as
.Fl \-fleet
takes it.
An empty
.Fl \-fleet
ignores it.
.It Ev XDG_STATE_HOME
The folder of
.Pa jovu/history ,
the lines given to the shell;
.Pa ~/.local/state
by default.
.El
)"},
        {"FILES",
         R"(.Bl -tag -width Ds
.It Pa /usr/lib/udev/rules.d/70\-jovu.rules
Who may open a controller: the user of the active local session, and members of
the group plugdev.
.El
)"},
        {"EXIT STATUS", exit_status()},
        {"EXAMPLES",
         R"(.Bd -literal -offset indent
jovu list
jovu gcode G28 'M104 S210'
jovu push part.gcode \-\-wait
jovu call servo_dc_position_get servo_name=0
jovu wait temperature 210 \-\-timeout 300
jovu trace 0 \-\-seconds 2 \-\-plot move.png
.Ed
)"},
        {"SEE ALSO", ".Xr dfu-util 1 ,\n.Xr jovu-sim 1\n"},
    };
    return program;
}

}  // namespace

int main(int argc, char** argv) {
    return reference::write_reference(argc, argv, describe);
}
