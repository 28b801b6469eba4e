// SPDX-License-Identifier: Apache-2.0

/// @file
/// A device that responds to every command at once, on the calling thread.
#pragma once

#include <string>

#include "jovu/device_address.h"

namespace bench {

inline constexpr JovuDeviceAddress kAddress{1, 2};

/// Connects a device to the client that has registered.
void connect_device();

/// Responds to every command from now on with this value of "__return__".
void respond_with(const std::string& returned);

/// Hands bytes to the client in packets.
/// @param interface 0 for the message channel, 1 for the job channel.
void receive(std::string& bytes, unsigned interface = 0);

/// The text of the first request since respond_with(), without its frame.
const std::string& sample_request();

/// The text of the response to it, with blanks for its id.
const std::string& sample_response();

}  // namespace bench
