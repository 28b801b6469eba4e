/// @file
/// Who a device says it is.
#pragma once

#include <string>

#include "jovu/device_address.h"

namespace jovu_cli {

class Session;

/// The texts that a controller identifies itself with.
struct Identity {
    std::string version;
    std::string serial;
};

/// Asks a device for its version and serial number. Any thread.
/// @throws Failure as Session::exchange().
Identity read_identity(Session& session, JovuDeviceAddress address);

/// As read_identity(), for the serial number alone.
std::string read_serial(Session& session, JovuDeviceAddress address);

}  // namespace jovu_cli
