/// @file
/// The commands of the program: what each can be told, and the function that carries it out. One
/// file each holds the rest.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "options.h"
#include "output.h"
#include "stop_source.h"

namespace jovu_cli {

class Session;

/// What every command is given to run with.
struct Context {
    const CommonOptions& options;
    Output& out;
    StopSource& stop;
    Session* session = nullptr;  ///< The link of the shell that the command runs in, if it does.
    /// Reads a line of the shell's input, which nobody else may read; empty outside a shell.
    /// @param prompt shown at a terminal.
    /// @return nothing at the end of the input.
    /// @throws Failure interrupted or output_closed, or file_problem.
    std::function<std::optional<std::string>(const std::string& prompt)> read_line{};
};

/// Between two reports of a device: each is a request, which the device answers besides its work.
constexpr std::chrono::milliseconds shortest_interval{100};

struct StatusOptions {
    bool watch = false;
    std::chrono::milliseconds interval{1000};
};

struct GcodeOptions {
    std::vector<std::string> lines;  ///< One "-" stands for standard input.
    std::string file;                ///< Read in place of @p lines when it is not empty.
    bool keep_going = false;
};

struct PushOptions {
    std::string file;
    bool wait = false;
};

struct EventOptions {
    std::optional<std::chrono::milliseconds> limit;
};

struct CommandsOptions {
    std::string name;  ///< One command of the firmware; all when empty.
};

struct CallOptions {
    std::string name;                    ///< A command of the firmware.
    std::vector<std::string> arguments;  ///< KEY=VALUE each.
};

struct TraceOptions {
    std::int16_t servo = 0;
    std::optional<std::chrono::milliseconds> limit;
    std::string csv;                ///< File for the samples; none when empty.
    std::string plot;               ///< File for the drawing; none when empty.
    std::optional<float> distance;  ///< Of a move, in client units.
};

struct UpdateOptions {
    std::string image;
    std::string serial;                       ///< Of the device to update; empty for any.
    bool yes = false;                         ///< Do not ask.
    bool force = false;                       ///< Write also what the checks refuse.
    std::optional<JovuDeviceAddress> device;  ///< Likewise, by its place on the bus.
};

/// @name The commands
/// Each returns when it has succeeded.
/// @throws Failure when it has not.
/// @{
void run_list(const Context& context);
void run_info(const Context& context);
void run_status(const Context& context, const StatusOptions& options);
void run_gcode(const Context& context, const GcodeOptions& options);
void run_push(const Context& context, const PushOptions& options);
void run_pause(const Context& context);
void run_resume(const Context& context);
void run_abort(const Context& context);
void run_events(const Context& context, const EventOptions& options);
void run_commands(const Context& context, const CommandsOptions& options);
void run_call(const Context& context, const CallOptions& options);
void run_trace(const Context& context, const TraceOptions& options);
void run_shell(const Context& context);
void run_dfu(const Context& context);
void run_update(const Context& context, const UpdateOptions& options);
/// @}

}  // namespace jovu_cli
