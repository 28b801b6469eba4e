// SPDX-License-Identifier: Apache-2.0

/// @file
/// The parts of the module _jovu, and what they share.
#pragma once

#include <pybind11/pybind11.h>

#include "jovu/devices.h"

namespace jovu_python {

/// The client and what belongs to it.
void bind_client(pybind11::module_& module);
/// What has no client: devices, filter, log, scan pauses, firmware update.
void bind_process(pybind11::module_& module);

pybind11::object store_info(const JovuDeviceInfo& info);

/// While an object of this class lives, the diagnostic lines of its thread are logged as details:
/// the failure that they describe is thrown as an exception too.
class LogLinesAsExceptions {
public:
    LogLinesAsExceptions();
    ~LogLinesAsExceptions();
    LogLinesAsExceptions(const LogLinesAsExceptions&) = delete;
    LogLinesAsExceptions& operator=(const LogLinesAsExceptions&) = delete;
};

}  // namespace jovu_python
