// SPDX-License-Identifier: Apache-2.0

/// @file
/// Requests to the simulator on whose bus the benchmark runs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "program.h"

namespace bench {

/// Sends a request. @return what follows "ok ".
/// @throws std::runtime_error with the simulator's reason.
std::string control(const std::string& request);

/// @return how requests name a controller that plug() has plugged in.
std::string name_of(Address address);

/// Plugs a controller in. On a kernel's bus, waits until that has given it an address.
Address plug();

/// Leaves that many new controllers on the bus, and no other device.
std::vector<Address> plug_anew(std::size_t count);

/// @return whether the last push to a controller arrived with the announced checksum.
bool push_verified(Address address);

}  // namespace bench
