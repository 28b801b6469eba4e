/// @file
/// A link made of memory: it takes what is written and hands back what it was told to, on the
/// calling thread.
#pragma once

#include <string>

#include "jovu/device_address.h"
#include "jovu/usb_client.h"

namespace bench {

inline constexpr JovuDeviceAddress kAddress{1, 2};

/// Connects a device to the client that has registered for the message channel.
void connect_device();

/// Answers every command from now on with this text as the value of "__return__".
void answer_with(const std::string& returned);

/// Hands bytes to the client in pieces as a bulk endpoint delivers them.
void receive(std::string& bytes);

/// The text of the first request since answer_with(), without its frame.
const std::string& sample_request();

/// The text of the answer to it, with blanks for its id.
const std::string& sample_answer();

/// A frame around a text.
std::string framed(const std::string& text);

}  // namespace bench
