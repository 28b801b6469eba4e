/// @file
/// What the program's exit status means. One enum, one table; help and manual are made from it.
#pragma once

#include <array>
#include <string>

namespace jovu_cli {

/// The program's exit status.
enum class ExitCode : int {
    ok = 0,
    failure = 1,
    usage = 2,
    no_device = 3,
    several_devices = 4,
    exchange_failed = 5,
    device_refused = 6,
    file_problem = 7,
    interrupted = 130,    ///< 128 + SIGINT, as a shell reports it.
    output_closed = 141,  ///< 128 + SIGPIPE, as a shell reports it.
};

/// One row of the table of exit codes.
struct ExitCodeRow {
    ExitCode code;
    const char* meaning;  ///< For people, in the help.
};

/// Every ExitCode once, in ascending order.
extern const std::array<ExitCodeRow, 10> exit_code_table;

/// @return the table as the section of the help text, one row a line.
std::string exit_code_help();

}  // namespace jovu_cli
