// SPDX-License-Identifier: Apache-2.0

/// @file
/// Writes the results of a fleet's devices, one line each, and counts those that failed.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "cli/json.h"
#include "fleet/fleet.h"
#include "fleet/requests.h"
#include "terminal/output.h"

namespace jovu_cli {

/// The output of one command. Every writing method throws as Output does.
class FleetReporter {
public:
    /// @param fleet must outlive this object, as must @p out.
    /// @param serials the chosen devices.
    FleetReporter(Output& out, const Fleet& fleet, std::vector<std::string> serials);

    const std::vector<std::string>& serials() const { return serials_; }
    Output& out() { return out_; }

    /// Writes a line that begins with the device.
    void line(const std::string& serial, const std::string& text);
    /// Writes an object with the members "serial" and "bridge" before its own.
    /// @param event the member before those; null for none.
    void object(const std::string& serial, const Json& members, const char* event = nullptr);
    /// Writes why a device has failed, and counts it.
    void fail(const std::string& serial, const std::string& code, const std::string& message);
    void fail(const FleetResponse& response) {
        fail(response.serial, response.error_code(), response.error_message());
    }

    /// @throws Failure with the number of failed devices, if there are any.
    void finish() const;

private:
    Output& out_;
    const Fleet& fleet_;
    std::vector<std::string> serials_;
    std::size_t width_ = 0;
    std::set<std::string> failed_;
};

}  // namespace jovu_cli
