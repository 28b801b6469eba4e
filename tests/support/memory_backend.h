// SPDX-License-Identifier: Apache-2.0

/// @file
/// A USB backend made of memory, in place of src/usb: a program that links it has no bus and no
/// watcher.
/// What is written goes to a function, and what a device sends is handed to the client directly,
/// all on the calling thread.
#pragma once

#include <cstddef>
#include <functional>

#include "jovu/device_address.h"
#include "jovu/usb_client.h"

namespace memory_backend {

inline constexpr std::size_t kPacket = 64;  ///< Bytes; as a bulk endpoint delivers them.

/// Takes what is written from now on. Null takes nothing.
using Writer = std::function<void(unsigned interface, const unsigned char* data, std::size_t size)>;
void on_write(Writer writer);

/// Notifies the client of interface 0 that a device is connected.
void connect(JovuDeviceAddress address);

/// The client that has registered last for an interface; stays the application's.
JovuUsbClient& client(unsigned interface);

}  // namespace memory_backend
