/// @file
/// `jovu gcode`: hands lines of gcode to a device's interpreter.

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "gcode_source.h"
#include "session.h"
#include "session_lease.h"

namespace jovu_cli {
namespace {

/// The interpreter's verdict for a line that it has carried out; any other one is a refusal.
constexpr std::uint32_t result_ok = 0;

std::unique_ptr<GcodeSource> make_source(const Context& context, const GcodeOptions& options) {
    if (!options.file.empty()) {
        return std::make_unique<StreamSource>(StreamSource::open_file(options.file, context.stop));
    }
    if (options.lines == std::vector<std::string>{"-"}) {
        if (context.read_line) {
            return std::make_unique<FunctionSource>([&] { return context.read_line("gcode> "); });
        }
        return std::make_unique<StreamSource>(StreamSource::standard_input(context.stop));
    }
    return std::make_unique<ArgumentSource>(options.lines);
}

std::shared_ptr<char> shared_text(const std::string& text) {
    const auto copy = std::make_shared<std::string>(text);
    return {copy, copy->data()};
}

/// Takes what the device has printed since the last call.
/// @throws Failure when it has gone: another one in its place has not carried out the lines before.
void take_texts(Session& session, JovuDeviceAddress address, std::vector<std::string>& texts) {
    while (const std::optional<Notice> notice = session.inbox().poll()) {
        session.check_connected(address, *notice);
        const auto* text = std::get_if<DebugText>(&notice->what);
        if (text != nullptr && *text && notice->address == address) {
            texts.push_back(**text);
        }
    }
}

void print_result(Output& out, JovuDeviceAddress address, const GcodeLine& line,
                  std::uint32_t result, const std::vector<std::string>& texts) {
    if (out.json()) {
        out.object({{"device", to_string(address)},
                    {"line", line.number},
                    {"command", line.text},
                    {"result", result},
                    {"accepted", result == result_ok},
                    {"texts", texts}});
        return;
    }
    out.line((result == result_ok ? "ok       " : "refused  ") + line.text);
    for (const std::string& text : texts) {
        out.line("         | " + text);
    }
}

Failure refusal(const GcodeLine& line, std::uint32_t result) {
    return Failure(ExitCode::device_refused, "device refused line " + std::to_string(line.number) +
                                                 " with result " + std::to_string(result) + ": " +
                                                 line.text);
}

}  // namespace

void run_gcode(const Context& context, const GcodeOptions& options) {
    const std::unique_ptr<GcodeSource> source = make_source(context, options);
    const SessionLease lease(context, Interest{false, true});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    std::size_t sent = 0;
    std::size_t refused = 0;
    while (const std::optional<GcodeLine> line = source->next()) {
        std::vector<std::string> texts;
        take_texts(session, address, texts);
        const std::string name = "line " + std::to_string(line->number) + " (" + line->text + ")";
        const std::uint32_t result = session.exchange(address, name, [&] {
            return session.client().gcode_process_command(address, shared_text(line->text));
        });
        ++sent;
        try {
            take_texts(session, address, texts);
        } catch (const Failure&) {
            print_result(context.out, address, *line, result, texts);  // It was carried out.
            throw;
        }
        print_result(context.out, address, *line, result, texts);
        if (result == result_ok) {
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

}  // namespace jovu_cli
