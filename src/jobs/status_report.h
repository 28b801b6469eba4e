/// @file
/// Reading a status report.
#pragma once

#include <yajl/yajl_tree.h>

#include "jovu/job_interface.h"

/// Stores what a report holds; a node that is missing or of another kind leaves its field as it
/// was.
/// @param report the report's root object.
void parse_status(yajl_val report, JovuJobInterface::StatusMsg& status);
