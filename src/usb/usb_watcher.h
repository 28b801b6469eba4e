/// @file
/// The thread that scans the bus and handles libusb's events.
#pragma once

#include "usb/libusb_owners.h"

namespace jovu {

/// Body of the watcher thread: scans the bus, and runs libusb's event handling between scans, until
/// the backend's run flag is cleared. An error that is not a device's own ends it with one line on
/// standard output; it never throws.
/// @param context kept alive by the watcher while it runs.
void device_status_thread_entry(const Context& context) noexcept;

}  // namespace jovu
