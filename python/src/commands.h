// SPDX-License-Identifier: Apache-2.0

/// @file
/// The firmware's commands for Python, from the library's table of commands.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <vector>

#include "jovu/client.h"

namespace jovu_python {

namespace py = pybind11;

/// A command with its arguments and, once it was run, its result. Has no Python objects, so that
/// any thread may run and destroy it.
class PreparedCommand {
public:
    PreparedCommand() = default;
    PreparedCommand(const PreparedCommand&) = delete;
    PreparedCommand& operator=(const PreparedCommand&) = delete;
    virtual ~PreparedCommand() = default;

    /// Makes the exchange; blocks and fails as the method of the library does. Without the GIL.
    virtual void run(JovuCommandInterface& commands, JovuDeviceAddress device) = 0;
    /// @return the result for Python. With the GIL.
    virtual py::object result() const = 0;
};

/// One row of the table.
struct Command {
    const char* name;
    const char* summary;
    std::vector<const char*> keys;
    py::list (*describe_arguments)();
    py::tuple (*describe_result)();
    /// @param arguments one for each key.
    /// @throws TypeError or ValueError that names the argument, its value and the reason.
    std::unique_ptr<PreparedCommand> (*prepare)(const py::tuple& arguments);
};

/// @return every command, in the order of the firmware's indices.
const std::vector<Command>& commands();

}  // namespace jovu_python
