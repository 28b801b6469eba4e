// SPDX-License-Identifier: Apache-2.0
#include "jovu/exception.h"

#include <utility>

// Without a default, so that the compiler reports a code that has no name.
const char* jovu_error_name(JovuError code) noexcept {
    switch (code) {
        case JovuError::none:
            return "none";
        case JovuError::unspecified:
            return "unspecified";
        case JovuError::rejected:
            return "rejected";
        case JovuError::in_callback:
            return "in_callback";
        case JovuError::disconnected:
            return "disconnected";
        case JovuError::shut_down:
            return "shut_down";
        case JovuError::send_timed_out:
            return "send_timed_out";
        case JovuError::stalled:
            return "stalled";
        case JovuError::transfer_failed:
            return "transfer_failed";
        case JovuError::response_timed_out:
            return "response_timed_out";
        case JovuError::no_response:
            return "no_response";
        case JovuError::usb_unavailable:
            return "usb_unavailable";
        case JovuError::not_permitted:
            return "not_permitted";
        case JovuError::file_unreadable:
            return "file_unreadable";
        case JovuError::tool_failed:
            return "tool_failed";
        case JovuError::closed:
            return "closed";
        case JovuError::busy:
            return "busy";
        case JovuError::cancelled:
            return "cancelled";
    }
    return "unknown";
}

JovuException::JovuException() : message_("Unknown JoVu Error") {}

JovuException::JovuException(std::string message, JovuError code)
    : message_(std::move(message)), code_(code) {}

JovuException::~JovuException() = default;

const char* JovuException::what() const noexcept {
    return message_.c_str();
}
