/// @file
/// Status reports for people and as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inbox.h"
#include "output.h"

namespace jovu_cli {

/// What a machine's state means for a job.
enum class JobPhase {
    idle,       ///< No job.
    receiving,  ///< A job file is still being taken.
    active,     ///< A job is under way: printing, heating for it.
    paused,     ///< A job is under way and paused.
    finished,   ///< The last job is through.
    aborted,    ///< The last job was given up.
    error,      ///< The machine reports an error.
};

/// Judges a state by its words. A state of unknown words counts as active, so that nobody takes a
/// job for finished that is not.
JobPhase state_phase(const std::string& state);

/// Judges a report: its error number first, then its state.
JobPhase job_phase(const StatusReport& report);

/// "error 12, state fault", for messages.
std::string describe_error(const StatusReport& report);

/// The report as JSON.
Json to_json(JovuDeviceAddress address, const StatusReport& report);

/// The machine's identity in a report as JSON.
Json identity_json(const StatusReport& report);

/// The report as a block of lines: a label and a value each.
std::vector<std::string> report_block(JovuDeviceAddress address, const StatusReport& report);

/// The machine's identity in a report as lines of such a block.
std::vector<std::string> identity_block(const StatusReport& report);

/// The report on one line.
std::string report_line(JovuDeviceAddress address, const StatusReport& report);

/// One line of a block.
std::string labelled(const std::string& label, const std::string& value);

/// "1:02:03", or "2:03" below an hour.
std::string duration_text(std::int64_t seconds);

/// "215.5 C".
std::string temperature_text(double celsius);

}  // namespace jovu_cli
