/// @file
/// Running libusb's event handling.
#pragma once

#include <chrono>

#include "usb/libusb_owners.h"

namespace jovu {

/// Handles events once, and so delivers data on this thread. When libusb fails it makes a pause:
/// its call has returned at once then, and callers loop.
/// @param limit how long to wait for events.
/// @param completed a flag that ends the wait when it is set; may be null.
void handle_events(const Context& context, std::chrono::milliseconds limit, int* completed);

/// Ends the event wait that is going on, or else the next one. Any thread, in a callback too.
void interrupt_event_handling(libusb_context* context) noexcept;

}  // namespace jovu
