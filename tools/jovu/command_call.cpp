/// @file
/// `jovu call`: makes one call of any of the firmware's commands.

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "call_arguments.h"
#include "commands.h"
#include "failure.h"
#include "firmware_commands.h"
#include "gcode_source.h"
#include "session.h"
#include "session_lease.h"
#include "value_text.h"

namespace jovu_cli {
namespace {

/// More than any argument: a frame carries 64 KiB.
constexpr std::size_t max_value = 256U << 10U;

/// Reads the values that are kept in files, so that other users of the machine do not see them
/// among the arguments of this process.
class ValueFiles {
public:
    explicit ValueFiles(const Context& context) : context_(context) {}

    /// @return what is in the file, without one line feed at the end.
    /// @throws Failure.
    std::string read(const std::string& file) {
        StreamSource source =
            file == "-" ? standard_input() : StreamSource::open_file(file, context_.stop);
        std::string value;
        const char* separator = "";
        while (const std::optional<std::string> line = source.next_raw()) {
            value += separator + *line;
            separator = "\n";
            if (value.size() > max_value) {
                throw Failure(ExitCode::file_problem,
                              "too long for a value: " + (file == "-" ? "standard input" : file));
            }
        }
        return value;
    }

private:
    StreamSource standard_input() {
        if (context_.session != nullptr || isatty(STDIN_FILENO) != 0) {
            throw Failure(ExitCode::usage, "@- needs a pipe or a file as standard input",
                          "name a file: KEY=@FILE");
        }
        if (taken_) {
            throw Failure(ExitCode::usage, "@- is given twice");
        }
        taken_ = true;
        return StreamSource::standard_input(context_.stop);
    }

    const Context& context_;
    bool taken_ = false;
};

}  // namespace

void run_call(const Context& context, const CallOptions& options) {
    const FirmwareCommand& command = firmware_command(options.name);
    ValueFiles files(context);
    const Json arguments = read_arguments(
        command, options.arguments, [&files](const std::string& file) { return files.read(file); });
    const SessionLease lease(context, Interest{});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const Json result = session.exchange(
        address, options.name, [&] { return command.call(session.client(), address, arguments); });
    if (context.out.json()) {
        Json object = {{"device", to_string(address)},
                       {"command", command.name},
                       {"index", command.index},
                       {"result", result}};
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

}  // namespace jovu_cli
