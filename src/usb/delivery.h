/// @file
/// How the link calls its clients.
#pragma once

#include <cstddef>

#include "jovu/device_address.h"

namespace jovu {

/// @return whether this thread is handing received data to clients. libusb's event handling is on
///     its stack then: no synchronous transfer can be made, and waiting for another thread's send
///     would wait for this very event handling.
bool delivering() noexcept;

/// @return whether any thread is handing received data to clients.
bool delivery_in_progress() noexcept;

/// @return whether this thread is inside a connect or disconnect notice.
bool in_notice() noexcept;

/// Hands received bytes to every client of an interface, in order of registration.
///
/// Called by libusb's C code, so nothing is thrown: what a client throws is kept for the watcher,
/// which meets it after its event handling has returned.
/// @return false when a client threw; the clients behind it were not called.
bool deliver(std::size_t interface, unsigned char* data, unsigned int length,
             JovuDeviceAddress address) noexcept;

/// Announces a device to the clients of interface 0, then of interface 1. Caller holds the device
/// gate. Passes on what a client throws.
void notify_connected(JovuDeviceAddress address);

/// The same for a device that is being closed; what a client throws is kept for the watcher.
void notify_disconnected(JovuDeviceAddress address) noexcept;

/// Throws, once, what a client threw since the last call.
void rethrow_client_error();

/// Forgets what a client threw.
void forget_client_error() noexcept;

}  // namespace jovu
