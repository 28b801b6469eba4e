// SPDX-License-Identifier: Apache-2.0

/// @file
/// Status reports and trace samples: what they mean for a job, and their JSON.
#pragma once

#include <string>

#include "cli/json.h"
#include "jovu/firmware_types.h"
#include "jovu/job_interface.h"

namespace jovu_cli {

using StatusReport = JovuJobInterface::StatusMsg;

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

/// @return the report as JSON, without a member for the device.
Json status_json(const StatusReport& report);

/// Reads a report that another program has written as status_json(). Members that are missing or of
/// the wrong kind are empty.
StatusReport read_status_json(const Json& json);

/// @return the machine's identity in a report as JSON.
Json identity_json(const StatusReport& report);

/// @return a sample of a servo's control loop as JSON.
Json trace_json(const servo_trace_msg& sample);

}  // namespace jovu_cli
