// SPDX-License-Identifier: Apache-2.0

/// @file
/// The library's diagnostic lines, and where they go.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "jovu/device_address.h"
#include "jovu/export.h"

/// How severe a diagnostic line is. More levels may follow.
enum class JovuLogLevel {
    warning,  ///< The library goes on: a response was dropped by strict matching.
    error,    ///< An operation has failed: an exchange, or a callback of a JovuCallbackClient.
    fatal,    ///< An error has ended the watcher thread: see JovuTransport::is_watching().
};

/// Receives the diagnostic lines.
/// @param level how severe the line is.
/// @param device what the line is about; nothing for the process as a whole.
/// @param text the line, without a line feed.
using JovuLogHandler = std::function<void(
    JovuLogLevel level, std::optional<JovuDeviceAddress> device, const std::string& text)>;

/// Sets the function that receives the diagnostic lines, for the whole process. Without one, each
/// line goes to standard output, with a line feed.
///
/// Threads: any, at any time, also in the handler itself. A call of the previous handler that has
/// begun on another thread may still run when this returns. The previous handler is destroyed when
/// its last call has returned, so a handler that owns what it uses is always safe.
///
/// The handler is called on the thread on which the failure occurs: the one that makes the
/// exchange, the thread that handles USB events (dropped responses, callbacks with received data),
/// a notification thread, or the watcher as it ends. Calls may overlap. No lock is held for the
/// call; one that results from received data runs within its dispatch, like any handler of received
/// data, and must not block. A handler makes no exchange and neither constructs nor shuts down a
/// client.
///
/// The handler must not throw: the exception ends there, and the line goes to standard output.
/// Lines that are reported while the process exits still go to the handler.
/// @param handler an empty function restores the output on standard output.
JOVU_API void jovu_set_log_handler(JovuLogHandler handler);
