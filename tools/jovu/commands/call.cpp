// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu call`: calls one of the firmware's commands.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "firmware/firmware_commands.h"
#include "firmware/value_strings.h"
#include "session/device_names.h"
#include "terminal/line_reader.h"

namespace jovu_cli {
namespace {

struct CallOptions {
    std::string name;                    ///< A command of the firmware.
    std::vector<std::string> arguments;  ///< KEY=VALUE each.
};

/// Bytes; more than any argument, as a frame carries 64 KiB.
constexpr std::size_t kMaxValue = 256U << 10U;

/// Reads values from files. Other users can read the arguments of a process, but not a secret in a
/// file.
class ValueFiles {
public:
    explicit ValueFiles(const Context& context) : context_(context) {}

    /// @return the content of the file, without a line feed at its end.
    /// @throws Failure.
    std::string read(const std::string& file) {
        StreamReader source =
            file == "-" ? standard_input() : StreamReader::open_file(file, context_.stop);
        std::string value;
        const char* separator = "";
        while (const std::optional<std::string> line = source.next_raw()) {
            value += separator + *line;
            separator = "\n";
            if (value.size() > kMaxValue) {
                throw Failure(ExitCode::file_problem,
                              "too long for a value: " + (file == "-" ? "standard input" : file));
            }
        }
        return value;
    }

private:
    StreamReader standard_input() {
        if (context_.session != nullptr || isatty(STDIN_FILENO) != 0) {
            throw Failure(ExitCode::usage, "@- needs a pipe or a file as standard input",
                          "name a file: KEY=@FILE");
        }
        if (taken_) {
            throw Failure(ExitCode::usage, "@- is given twice");
        }
        taken_ = true;
        return StreamReader::standard_input(context_.stop);
    }

    const Context& context_;
    bool taken_ = false;
};

void run_call(const Context& context, const CallOptions& options) {
    const FirmwareCommand& command = firmware_command(options.name);
    ValueFiles files(context);
    const Json arguments = read_arguments(
        command, options.arguments, [&files](const std::string& file) { return files.read(file); });
    if (const auto fleet = fleet_context(context)) {
        call_fleet(*fleet, options.name, arguments);
        return;
    }
    const SessionLease lease(context, Interest{});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const Json result = session.exchange(
        address, options.name, [&] { return command.call(session.client(), address, arguments); });
    if (context.out.json()) {
        Json object = device_json(address);
        object.update({{"command", command.name}, {"index", command.index}, {"result", result}});
        if (command.keeps_value) {
            object["value"] = nullptr;
        }
        context.out.object(object);
        return;
    }
    if (command.keeps_value) {
        context.out.line("status " + result.dump() + "; the value itself is not returned");
        return;
    }
    if (command.result.kind == Kind::nothing) {
        context.out.line("done");
        return;
    }
    for (const std::string& line : value_lines(result)) {
        context.out.line(line);
    }
}

Run define_call(CLI::App& app) {
    const auto options = std::make_shared<CallOptions>();
    app.add_option("NAME", options->name, "The command, as 'jovu commands' lists it")
        ->type_name("")
        ->required();
    app.add_option("KEY=VALUE", options->arguments, "Its arguments, in any order")->type_name("");
    app.footer(
        "'jovu commands NAME' lists the arguments and their ranges.\n"
        "Enumerations are whole numbers (decimal, or hexadecimal with 0x), booleans are 0 or 1.\n"
        "Of a buffer, a list such as 1.5,2,3, only the first value is sent to the device.\n"
        "A structure is given by its members (config.gains.kp=1.5), as JSON (config={...}), or\n"
        "by both: then the members replace those of the JSON. Omitted members are zero.\n"
        "Bytes are decimals with dots or commas (192.168.1.7), or hexadecimals with colons.\n"
        "@FILE reads a value from a file, @- from standard input, without a line feed at the\n"
        "end; use them for secrets, as other users can read the arguments of a process. Write\n"
        "@@ for a value that begins with @.");
    return [options](const Context& context) { run_call(context, *options); };
}

}  // namespace

const Command kCallCommand{"call", "Call one of the firmware's commands", define_call,
                           FleetUse::works};

}  // namespace jovu_cli
