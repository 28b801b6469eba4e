#include "exit_codes.h"

#include <cstdio>

namespace jovu_cli {

const std::array<ExitCodeRow, 10> exit_code_table{{
    {ExitCode::ok, "done"},
    {ExitCode::failure,
     "the USB link or a needed program could not be started, or an internal error"},
    {ExitCode::usage, "wrong usage: unknown command or option, or a bad value"},
    {ExitCode::no_device,
     "no device: none attached, none that can be opened, or not the one asked for"},
    {ExitCode::several_devices, "several devices are connected and none was chosen with -d"},
    {ExitCode::exchange_failed,
     "an exchange with the device failed or timed out, or it was unplugged"},
    {ExitCode::device_refused, "the device answered and refused"},
    {ExitCode::file_problem, "a file cannot be read, or the output cannot be written"},
    {ExitCode::interrupted, "interrupted by Ctrl-C or a request to terminate"},
    {ExitCode::output_closed, "the reader of the output went away"},
}};

std::string exit_code_help() {
    std::string text = "Exit codes:\n";
    for (const ExitCodeRow& row : exit_code_table) {
        char line[128];
        std::snprintf(line, sizeof line, "  %3d  %s\n", static_cast<int>(row.code), row.meaning);
        text += line;
    }
    return text;
}

}  // namespace jovu_cli
