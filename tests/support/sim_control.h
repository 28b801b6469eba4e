// SPDX-License-Identifier: Apache-2.0

/// @file
/// Speaks to the simulated bus that the test program runs on.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "jovu/device_address.h"

namespace test {

/// Carries out one control request and returns what follows "ok".
/// @throws std::runtime_error with the simulator's message when it refuses.
std::string sim(const std::string& request);

/// Plugs a device in.
JovuDeviceAddress plug(const std::string& what = "");

/// @return "BUS:ADDR".
std::string name(JovuDeviceAddress address);

/// What the simulated device has counted.
nlohmann::json stats(JovuDeviceAddress address);

/// Number of protocol violations that the device has counted: it checks every member of every
/// request.
int protocol_violations(JovuDeviceAddress address);

/// How many requests of that command have reached the device.
int requests(JovuDeviceAddress address, const std::string& command);

}  // namespace test
