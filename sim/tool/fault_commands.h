/// @file
/// The control request "fault".
#pragma once

#include <string>

#include "bus/testbed.h"
#include "tool/request_reader.h"

namespace jovusim {

/// Sets the fault that the words describe. Main thread. @throws BadRequest, std::out_of_range
void set_fault(Testbed& testbed, BusAddress address, RequestReader& reader);

/// All faults, one a line, for the help text.
std::string fault_help();

}  // namespace jovusim
