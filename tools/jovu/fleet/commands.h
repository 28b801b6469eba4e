// SPDX-License-Identifier: Apache-2.0

/// @file
/// The commands of the program on the devices of a fleet.
///
/// Each function returns when every chosen device has succeeded.
/// @throws Failure with fleet_exit_code() when some have not, or with another code when nothing
///     was requested.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/json.h"
#include "cli/options.h"
#include "posix/stop_source.h"
#include "terminal/output.h"

namespace jovu_cli {

/// What a command on a fleet runs with.
struct FleetContext {
    const CommonOptions& options;
    Output& out;
    StopSource& stop;
};

/// Lists the devices; all unless some are chosen.
void list_fleet(const FleetContext& context);

/// Shows the status of each device.
/// @param interval report repeatedly: every device whose status has changed, at most so often.
void show_fleet_status(const FleetContext& context,
                       std::optional<std::chrono::milliseconds> interval);

/// Prints events, of all devices unless some are chosen.
/// @param limit stop after this time.
void print_fleet_events(const FleetContext& context,
                        std::optional<std::chrono::milliseconds> limit);

/// Sends lines of gcode to each device.
void send_fleet_gcode(const FleetContext& context, const std::vector<std::string>& lines,
                      bool keep_going);

/// Calls a command of the firmware on each device.
/// @param name of the command.
/// @param arguments as read_arguments() returns them.
void call_fleet(const FleetContext& context, const std::string& name, const Json& arguments);

/// Sends "pause", "resume" or "abort" to each device.
void control_fleet_jobs(const FleetContext& context, const std::string& request);

/// A job, by reference.
struct FleetJob {
    std::string source;  ///< An https or file URL, or a local file.
    std::optional<std::uint64_t> size;
    std::string sha256;  ///< Hexadecimal; empty when it is not given.
    bool wait = false;   ///< Follow the job to its end.
};

/// Has each device's bridge fetch a job and send it.
void push_to_fleet(const FleetContext& context, const FleetJob& job);

/// Shows the devices on one screen; all unless some are chosen.
void monitor_fleet(const FleetContext& context);

}  // namespace jovu_cli
