// SPDX-License-Identifier: Apache-2.0

/// @file
/// Status reports and events, for people and as JSON.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "firmware/status_report.h"
#include "session/notification_queue.h"
#include "terminal/output.h"

namespace jovu_cli {

/// @return the report as JSON.
Json to_json(JovuDeviceAddress address, const StatusReport& report);

/// @return the report as a block of labelled() lines.
std::vector<std::string> report_block(JovuDeviceAddress address, const StatusReport& report);

/// @param device for the first line.
std::vector<std::string> report_block(const std::string& device, const StatusReport& report);

/// @return the machine's identity in a report as labelled() lines.
std::vector<std::string> identity_block(const StatusReport& report);

/// @return the report on one line, without the device.
std::string report_line(const StatusReport& report);

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
