/// @file
/// What the calls of the fake libusb have come to.
#pragma once

namespace sweep {

/// How many calls of event handling have been made to fail.
unsigned failed_event_calls() noexcept;

}  // namespace sweep
