// SPDX-License-Identifier: Apache-2.0

/// @file
/// The commands of the program: their table, the parser of the command line, and what a command
/// runs with.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/options.h"
#include "fleet/commands.h"
#include "posix/stop_source.h"
#include "session/session.h"
#include "terminal/line_reader.h"
#include "terminal/output.h"

namespace CLI {
class App;
}

namespace jovu_cli {

/// What a command runs with.
struct Context {
    const CommonOptions& options;
    Output& out;
    StopSource& stop;
    Session* session = nullptr;  ///< The shell's session; null outside a shell.
    /// Reads a line of the shell's input; empty outside a shell, where commands read standard
    /// input.
    ReadLine read_line{};
};

/// @return what a command on a fleet runs with; nothing when the command is for a local device.
/// @throws Failure usage in a shell, which has local devices.
std::optional<FleetContext> fleet_context(const Context& context);

/// Runs a command. Returns when the command has succeeded.
/// @throws Failure when it has not.
using Run = std::function<void(const Context&)>;

/// What a command does with --fleet.
enum class FleetUse {
    none,        ///< It fails.
    works,       ///< It uses the devices of the fleet.
    irrelevant,  ///< It uses no device.
};

/// One row of the table of commands. Each command's file defines one row for each of its names.
struct Command {
    const char* name;
    const char* summary;  ///< One line in the imperative, for the list of commands.
    /// Adds the command's options and help to its parser.
    /// @return the function that runs the command; it owns the parsed values.
    Run (*define)(CLI::App& app);
    FleetUse fleet = FleetUse::none;
};

/// @name The rows
/// @{
extern const Command kListCommand;
extern const Command kInfoCommand;
extern const Command kStatusCommand;
extern const Command kMonitorCommand;
extern const Command kGcodeCommand;
extern const Command kPushCommand;
extern const Command kPauseCommand;
extern const Command kResumeCommand;
extern const Command kAbortCommand;
extern const Command kWaitCommand;
extern const Command kEventsCommand;
extern const Command kCommandsCommand;
extern const Command kCallCommand;
extern const Command kTraceCommand;
extern const Command kShellCommand;
extern const Command kDfuCommand;
extern const Command kUpdateCommand;
extern const Command kHelpCommand;
/// @}

/// Every command, in the order in which the help lists them.
const std::vector<Command>& command_table();

/// @return the names of all commands, in the same order.
std::vector<std::string> command_names();

/// What `jovu wait` can wait for.
inline constexpr std::array<const char*, 3> kWaitGoals{"device", "state", "temperature"};

/// Adds the purpose, the options and the commands of the program to a parser.
/// @param options receives the options of every command; must live as long as the parser.
/// @return the function that runs each command, by the parser of the command.
std::map<const CLI::App*, Run> define_command_line(CLI::App& app, CommonOptions& options);

/// A parsed command line.
struct Request {
    CommonOptions options;
    Run run;              ///< Empty for --help and --version.
    std::string message;  ///< The help or the version.
};

/// Parses a command line.
/// @param help the command that shows the help of another one, for errors.
/// @param fleet_url what --fleet is when it is not given.
/// @throws Failure usage.
Request parse_command_line(int argc, const char* const* argv, const std::string& help = "jovu help",
                           const std::string& fleet_url = {});

/// Sends one line of gcode, as `jovu gcode LINE`. For the shell.
void send_gcode_line(const Context& context, const std::string& line);

/// The session that one command uses: the shell's, or one of its own.
class SessionLease {
public:
    /// @throws Failure when the USB connection cannot be started.
    SessionLease(const Context& context, Interest interest)
        : session_(context.session != nullptr ? context.session : &own(context, interest)) {
        if (!own_) {
            session_->begin(context.options, interest);
        }
    }
    /// Drops the notifications that arrive between commands.
    ~SessionLease() { session_->begin({}, {}); }
    SessionLease(const SessionLease&) = delete;
    SessionLease& operator=(const SessionLease&) = delete;

    Session& session() const noexcept { return *session_; }

private:
    /// The devices that the command is not for stay free for other programs.
    Session& own(const Context& context, Interest interest) {
        Client::set_device_filter(context.options.filter());
        return own_.emplace(context.options, context.stop, interest);
    }

    std::optional<Session> own_;
    Session* session_;
};

}  // namespace jovu_cli
