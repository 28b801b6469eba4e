/// @file
/// The firmware's commands, one method each.
#pragma once

#include <memory>

#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/firmware_types.h"

class JovuTransport;

/// One method per firmware command. Each sends one request to one device and blocks until the
/// answer is in or the exchange has failed.
///
/// Failure: no method throws because an exchange failed. It prints one line on standard output and
/// returns a zero-initialised result (null for a text); JovuTransport::last_send_error() then says
/// why, on the calling thread, and is empty when the device answered.
///
/// Threads: any, also several at once; exchanges with one device are serialised. An exchange takes
/// 15 s at the most without a sign from the device. From a handler that is called with received
/// data (events, job-channel callbacks) every command fails at once: it could not be answered while
/// that handler runs.
class JOVU_API JovuCommandInterface {
public:
    /// @param transport sends the commands; must outlive this object.
    explicit JovuCommandInterface(JovuTransport& transport);

    /// @name Identity
    /// @{

    /// Version text of the firmware.
    /// @return a NUL-terminated text, or null when the exchange failed.
    std::shared_ptr<char> bio_get_version(JovuDeviceAddress address);

    /// Serial number text of the controller.
    /// @return a NUL-terminated text, or null when the exchange failed.
    std::shared_ptr<char> bio_get_serial(JovuDeviceAddress address);

    /// @}
    /// @name Gcode
    /// @{

    /// Hands one line of gcode to the controller's interpreter.
    /// @param command the line, a non-null NUL-terminated text.
    /// @return the interpreter's verdict, the firmware's own value passed through unchanged.
    gcode_process_result_t gcode_process_command(JovuDeviceAddress address,
                                                 std::shared_ptr<char> command);

    /// @}

private:
    JovuTransport& transport_;
};
