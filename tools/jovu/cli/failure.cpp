// SPDX-License-Identifier: Apache-2.0
#include "cli/failure.h"

#include <cstdio>

namespace jovu_cli {

const std::array<ExitCodeRow, 11> kExitCodes{{
    {ExitCode::ok, "success"},
    {ExitCode::failure,
     "the USB connection or a required program cannot be started, or an internal error"},
    {ExitCode::usage, "wrong usage: unknown command or option, or an invalid value"},
    {ExitCode::no_device,
     "no device: none attached, none that can be opened, or not the one chosen"},
    {ExitCode::several_devices, "several devices are connected and none was chosen"},
    {ExitCode::exchange_failed,
     "an exchange with the device failed or timed out, or it was unplugged"},
    {ExitCode::device_refused, "the device refused the request"},
    {ExitCode::file_problem, "a file cannot be read, or the output cannot be written"},
    {ExitCode::timed_out, "the time-out of 'jovu wait' has passed"},
    {ExitCode::interrupted, "interrupted by Ctrl-C or a request to terminate"},
    {ExitCode::output_closed, "the reader of the output closed it"},
}};

std::string exit_code_help() {
    std::string help = "Exit codes:\n";
    for (const ExitCodeRow& row : kExitCodes) {
        char line[128];
        std::snprintf(line, sizeof line, "  %3d  %s\n", static_cast<int>(row.code), row.meaning);
        help += line;
    }
    return help;
}

}  // namespace jovu_cli
