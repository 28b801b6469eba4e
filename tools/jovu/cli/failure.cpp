// SPDX-License-Identifier: Apache-2.0
#include "cli/failure.h"

#include <algorithm>
#include <cstdio>

namespace jovu_cli {

const std::array<ExitCodeRow, 12> kExitCodes{{
    {ExitCode::ok, "success"},
    {ExitCode::failure,
     "no USB connection, no broker, a required program is missing, or an internal error"},
    {ExitCode::usage, "wrong usage: unknown command or option, or an invalid value"},
    {ExitCode::no_device,
     "no device: none attached, none that can be opened, or not the one chosen"},
    {ExitCode::several_devices, "several devices are connected and none was chosen"},
    {ExitCode::exchange_failed,
     "an exchange with the device failed or timed out, or it was unplugged"},
    {ExitCode::device_refused, "the device refused the request"},
    {ExitCode::file_problem, "a file cannot be read, or the output cannot be written"},
    {ExitCode::timed_out, "the time-out of 'jovu wait' has passed"},
    {ExitCode::fleet_failed,
     "with --fleet: one device failed; 22: two devices; up to 120: 100 or more devices"},
    {ExitCode::interrupted, "interrupted by Ctrl-C or a request to terminate"},
    {ExitCode::output_closed, "the reader of the output closed it"},
}};

ExitCode fleet_exit_code(std::size_t failed) {
    constexpr std::size_t kMost = 100;
    return failed == 0 ? ExitCode::ok
                       : static_cast<ExitCode>(20 + static_cast<int>(std::min(failed, kMost)));
}

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
