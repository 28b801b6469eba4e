// SPDX-License-Identifier: Apache-2.0

/// @file
/// The library's one exception type, and why a call failed.
#pragma once

#include <exception>
#include <string>

#include "jovu/export.h"

/// Why a call failed, for programs; the text says it for people. More values may follow.
enum class JovuError {
    none,                ///< The call has not failed.
    unspecified,         ///< A failure that the text alone describes.
    rejected,            ///< Refused before anything was sent: an argument, a size, the wrong time.
    in_callback,         ///< Not possible on a thread that is in a callback of the library.
    disconnected,        ///< The device is not open: unplugged, or never opened.
    shut_down,           ///< The client's shutdown() has begun.
    send_timed_out,      ///< The device takes no data. It may have taken a part.
    stalled,             ///< The device has stalled the endpoint.
    transfer_failed,     ///< The USB transfer failed in another way.
    response_timed_out,  ///< Sent, and no response within the time-out.
    no_response,         ///< Sent, and the device disconnected, or its response cannot be read.
    usb_unavailable,     ///< libusb cannot be started, or cannot list or open devices.
    not_permitted,       ///< The system denies access to the device.
    file_unreadable,     ///< A file cannot be opened or read.
    tool_failed,         ///< dfu-util cannot be run, or failed.
    closed,              ///< close() has closed the device, which is still attached.
    busy,                ///< The system or libusb reports that the device is busy.
    cancelled,           ///< JovuTransport::cancel_exchanges() has ended the exchange.
};

/// The name of a code, as the enumeration spells it, for logs. Threads: any.
/// @return a string that is never freed; "unknown" for a value that is not in the enumeration.
JOVU_API const char* jovu_error_name(JovuError code) noexcept;

/// The only exception type that the library throws of its own accord. Carries one fixed English
/// sentence, followed by the offending value where there is one.
class JOVU_API JovuException : public std::exception {
public:
    /// An exception with the message "Unknown JoVu Error".
    JovuException();

    /// @param message what what() will return.
    /// @param code what code() will return.
    explicit JovuException(std::string message, JovuError code = JovuError::unspecified);

    /// Copies the message and the code.
    JovuException(const JovuException&) = default;
    /// Copies the message and the code.
    JovuException& operator=(const JovuException&) = default;
    /// Does not throw.
    ~JovuException() override;

    /// @return the message; valid as long as this object lives.
    const char* what() const noexcept override;

    /// @return the kind of failure; never JovuError::none.
    JovuError code() const noexcept { return code_; }

private:
    std::string message_;
    JovuError code_ = JovuError::unspecified;
};
