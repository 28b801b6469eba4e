// SPDX-License-Identifier: Apache-2.0

/// @file
/// Status reports and events, for people and as JSON.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "session/notification_queue.h"
#include "terminal/output.h"

namespace jovu_cli {

/// What a machine's state means for a job.
enum class JobPhase {
    idle,       ///< No job.
    receiving,  ///< The machine is receiving or verifying a job file.
    active,     ///< The machine works on a job: it prints, or heats for it.
    paused,     ///< The job is paused.
    finished,   ///< The last job is complete.
    aborted,    ///< The last job was aborted.
    error,      ///< The machine reports an error.
};

/// Classifies a state by its name. An unknown name counts as active, so that an unfinished job is
/// never reported as finished.
JobPhase state_phase(const std::string& state);

/// Classifies a report: by its error number first, then by its state.
JobPhase job_phase(const StatusReport& report);

/// @return the state, "-" for none.
std::string state_string(const StatusReport& report);

/// @return "error 12, state fault", for messages.
std::string describe_error(const StatusReport& report);

/// @return the report as JSON.
Json to_json(JovuDeviceAddress address, const StatusReport& report);

/// @return the machine's identity in a report as JSON.
Json identity_json(const StatusReport& report);

/// @return the report as a block of labelled() lines.
std::vector<std::string> report_block(JovuDeviceAddress address, const StatusReport& report);

/// @return the machine's identity in a report as labelled() lines.
std::vector<std::string> identity_block(const StatusReport& report);

/// @return the report on one line.
std::string report_line(JovuDeviceAddress address, const StatusReport& report);

/// @return a debug message without its line feeds, or a trace sample; empty for other
///     notifications.
std::string event_string(const Notification& notification);

/// Prints a debug message or a trace sample on a line, with the time of its arrival. Does nothing
/// for other notifications.
/// @throws Failure as Output.
void print_event(Output& out, const Notification& notification);

/// Prints on standard error how many events were lost; nothing for none.
/// @param action what was too slow: "written" or "recorded".
void print_lost_events(std::size_t count, const char* action = "written");

}  // namespace jovu_cli
