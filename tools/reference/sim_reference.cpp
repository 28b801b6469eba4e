// SPDX-License-Identifier: Apache-2.0

/// @file
/// Writes the manual page of `jovu-sim` and its completion, from the tables that the program runs
/// on.
#include <CLI/CLI.hpp>
#include <sstream>
#include <stdexcept>

#include "reference/program.h"
#include "tool/command_line.h"
#include "tool/control_commands.h"

namespace {

using reference::Values;

/// The words at a place in the lines of a help text.
std::vector<std::string> words_at(std::size_t place, const std::string& help) {
    std::vector<std::string> words;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream rest(line);
        std::string word;
        for (std::size_t i = 0; i <= place; ++i) {
            rest >> word;
        }
        if (line.rfind("  ", 0) == 0 && (words.empty() || words.back() != word)) {
            words.push_back(word);
        }
    }
    return words;
}

Values find_values(const std::string& command, const std::string& value) {
    const bool runs = command == jovusim::kRunCommand || command == jovusim::kAttachCommand;
    if (runs && value == "program") {
        return {Values::Kind::programs};
    }
    if (value == "SPEED") {
        return {Values::Kind::words, {"full", "high"}};
    }
    if (value == "FILE") {
        return {Values::Kind::files};
    }
    for (const char* const free : {"UINT", "FLOAT", "ADDRESS:PORT", "version"}) {
        if (value == free) {
            return {};
        }
    }
    throw std::logic_error("how is this value completed? " + value);
}

reference::Program describe() {
    CLI::App app;
    jovusim::CommandLine line;
    jovusim::define_command_line(app, line);
    reference::Program program = reference::read_program(app, JOVU_PROJECT_VERSION, find_values);
    for (reference::Command& command : program.commands) {
        if (command.name == jovusim::kCtlCommand) {
            Values requests{Values::Kind::words, words_at(0, jovusim::control_help())};
            Values faults{Values::Kind::keys};
            faults.keys["fault"] = words_at(2, jovusim::fault_help());
            command.arguments = {
                {{}, "REQUEST", "What the simulator is to do, see above", true, false, requests},
                {{}, "DEVICE", "The device", false, false, {}},
                {{}, "ARGUMENT", "What follows in the request", false, true, faults},
            };
        }
    }
    program.sections = {
        {"ENVIRONMENT",
         R"(.Bl -tag -width Ds
.It Ev JOVU_SIM_CONTROL
Set for the program that runs on the bus, or with the attached controllers: the
path of the local stream socket that takes requests.
.It Ev LD_PRELOAD
Set for the program that runs on the bus, so that it sees the simulated devices.
.El
)"},
        {"EXIT STATUS",
         R"(.Cm run ,
and
.Cm attach
with a program, ends with the status of the program, with 128 plus the number of the signal that
ended it, 127 when there is no such program, 126 when it cannot be run, 125 when
the simulator failed.
Without a program,
.Cm attach
and
.Cm serve
end with 0 after a signal and with 125 when they failed.
.Cm ctl
ends with 0 for
.Dq ok ,
1 for
.Dq error ,
2 without a simulator.
The status of a wrong command line is 2.
)"},
        {"EXAMPLES",
         R"(.Bd -literal -offset indent
jovu\-sim run \-\- jovu list
jovu\-sim run \-\-devices 3 \-\- bash
jovu\-sim ctl unplug 1:2
sudo jovu\-sim attach
jovu\-sim serve \-\-listen 127.0.0.1:3240
.Ed
)"},
        {"SEE ALSO", ".Xr jovu 1\n"},
    };
    return program;
}

}  // namespace

int main(int argc, char** argv) {
    return reference::write_reference(argc, argv, describe);
}
