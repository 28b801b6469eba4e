// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu gcode`: sends lines of gcode to a device's interpreter.

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "session/device_names.h"
#include "terminal/line_reader.h"

namespace jovu_cli {
namespace {

struct GcodeOptions {
    std::vector<std::string> lines;  ///< One "-" stands for standard input.
    std::string file;                ///< Read instead of @p lines unless empty.
    bool keep_going = false;
};

/// The interpreter's result of an executed line; any other result is a refusal.
constexpr std::uint32_t kResultOk = 0;

std::unique_ptr<GcodeReader> make_reader(const Context& context, const GcodeOptions& options) {
    if (!options.file.empty()) {
        return std::make_unique<StreamReader>(StreamReader::open_file(options.file, context.stop));
    }
    if (options.lines == std::vector<std::string>{"-"}) {
        if (context.read_line) {
            return std::make_unique<FunctionReader>([&] { return context.read_line("gcode> "); });
        }
        return std::make_unique<StreamReader>(StreamReader::standard_input(context.stop));
    }
    return std::make_unique<ArgumentReader>(options.lines);
}

std::shared_ptr<char> shared_string(const std::string& message) {
    const auto copy = std::make_shared<std::string>(message);
    return {copy, copy->data()};
}

/// Takes the debug messages since the last call.
/// @throws Failure when the device has disconnected: a device that replaces it did not execute the
///     lines before.
void take_debug_lines(Session& session, JovuDeviceAddress address,
                      std::vector<std::string>& messages) {
    while (const std::optional<Notification> notification = session.notifications().poll()) {
        session.check_connected(address, *notification);
        const auto* message = std::get_if<DebugMessage>(&notification->what);
        if (message != nullptr && *message && notification->address == address) {
            messages.push_back(**message);
        }
    }
}

void print_result(Output& out, JovuDeviceAddress address, const GcodeLine& line,
                  std::uint32_t result, const std::vector<std::string>& messages) {
    if (out.json()) {
        Json object = device_json(address);
        object.update({{"line", line.number},
                       {"command", line.code},
                       {"result", result},
                       {"accepted", result == kResultOk},
                       {"texts", messages}});
        out.object(object);
        return;
    }
    out.line((result == kResultOk ? "ok       " : "refused  ") + line.code);
    for (const std::string& message : messages) {
        out.line("         | " + message);
    }
}

Failure refusal(const GcodeLine& line, std::uint32_t result) {
    return Failure(ExitCode::device_refused, "device refused line " + std::to_string(line.number) +
                                                 " with result " + std::to_string(result) + ": " +
                                                 line.code);
}

void run_gcode(const Context& context, const GcodeOptions& options) {
    const std::unique_ptr<GcodeReader> reader = make_reader(context, options);
    if (const auto fleet = fleet_context(context)) {
        std::vector<std::string> lines;
        while (const std::optional<GcodeLine> line = reader->next()) {
            lines.push_back(line->code);
        }
        send_fleet_gcode(*fleet, lines, options.keep_going);
        return;
    }
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    std::size_t sent = 0;
    std::size_t refused = 0;
    while (const std::optional<GcodeLine> line = reader->next()) {
        std::vector<std::string> messages;
        take_debug_lines(session, address, messages);
        const std::string name = "line " + std::to_string(line->number) + " (" + line->code + ")";
        const std::uint32_t result = session.exchange(address, name, [&] {
            return session.client().gcode_process_command(address, shared_string(line->code));
        });
        ++sent;
        try {
            take_debug_lines(session, address, messages);
        } catch (const Failure&) {
            print_result(context.out, address, *line, result, messages);  // The line was executed.
            throw;
        }
        print_result(context.out, address, *line, result, messages);
        if (result == kResultOk) {
            continue;
        }
        if (!options.keep_going) {
            throw refusal(*line, result);
        }
        ++refused;
        print_error(std::string("jovu: ") + refusal(*line, result).what());
    }
    if (refused > 0) {
        throw Failure(ExitCode::device_refused,
                      "lines refused: " + std::to_string(refused) + " of " + std::to_string(sent));
    }
}

Run define_gcode(CLI::App& app) {
    const auto options = std::make_shared<GcodeOptions>();
    CLI::Option* lines =
        app.add_option("LINE", options->lines, "Lines of gcode, or - for standard input")
            ->type_name("");
    CLI::Option* file =
        app.add_option("-f,--file", options->file, "Read the lines from a file")->type_name("FILE");
    app.add_flag("-k,--keep-going", options->keep_going, "Continue after a refused line");
    app.footer(
        "Skips comments (from ; on) and blank lines. Waits for the device's result of each line;\n"
        "0 is success. Shows what the device prints meanwhile below the line.");
    app.callback([lines, file] {
        if ((lines->count() == 0) == (file->count() == 0)) {
            throw CLI::ValidationError("either LINE..., - or --file FILE is needed");
        }
    });
    return [options](const Context& context) { run_gcode(context, *options); };
}

}  // namespace

const Command kGcodeCommand{"gcode", "Send lines of gcode", define_gcode, FleetUse::works};

void send_gcode_line(const Context& context, const std::string& line) {
    run_gcode(context, {{line}, "", false});
}

}  // namespace jovu_cli
