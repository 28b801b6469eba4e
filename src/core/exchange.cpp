// SPDX-License-Identifier: Apache-2.0

/// @file
/// An exchange: a request is sent and its response awaited.
#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/log.h"
#include "base/time_limit.h"
#include "core/frame.h"
#include "core/message.h"
#include "core/transport_state.h"
#include "core/waiting_requests.h"
#include "jovu/exception.h"
#include "jovu/response_timeout.h"
#include "jovu/transport.h"
#include "usb/usb.h"

namespace {

constexpr const char* kDisconnected = "Transport Error - Device has been disconnected.";

/// Why the calling thread's last exchange failed. Trivially destructible, so that an exchange in a
/// static object's destructor, when the thread's other thread-local objects are gone, still finds
/// it.
struct SendError {
    std::array<char, 255> text;
    std::size_t length;
    JovuError code;
};
thread_local SendError last_error{};

/// Longer reasons are cut.
void set_last_error(std::string_view reason, JovuError code) noexcept {
    last_error.code = code;
    last_error.length = std::min(reason.size(), last_error.text.size());
    std::copy_n(reason.begin(), last_error.length, last_error.text.begin());
}

/// Of the calling thread's innermost JovuResponseTimeout; 0 without one.
thread_local std::chrono::milliseconds scoped_timeout{};

constexpr const char* kTimeoutName = "Response time-out";

/// @return why a device that a client has no connection with cannot be used.
JovuError not_connected_error(JovuDeviceAddress address) {
    const auto connection = JovuUsb::connection(address);
    return connection == nullptr ? JovuError::disconnected : connection->not_open_error();
}

/// A header whose body does not follow would have the device take the next frame for the body, so
/// both are one write.
void write_frame(jovu::Connection& connection, std::string json) {
    const jovu::Frame frame = jovu::make_frame(std::move(json));
    connection.write({{frame.header, sizeof frame.header},
                      {reinterpret_cast<const unsigned char*>(frame.body.data()),
                       static_cast<unsigned int>(frame.body.size())}},
                     JovuUsb::JOVU_USB_INTERFACE_MESSAGES);
}

}  // namespace

JovuResponseTimeout::JovuResponseTimeout(std::chrono::milliseconds limit) : outer_(scoped_timeout) {
    jovu::check_time_limit(kTimeoutName, limit);
    scoped_timeout = limit;
}

JovuResponseTimeout::~JovuResponseTimeout() {
    scoped_timeout = outer_;
}

void JovuTransport::set_response_timeout(std::chrono::milliseconds limit) {
    jovu::check_time_limit(kTimeoutName, limit);
    state_->response_timeout = limit;
}

std::size_t JovuTransport::cancel_exchanges(JovuDeviceAddress address) {
    const State::Route route = state_->route(address);
    if (route.cancellable == nullptr) return 0;
    const std::size_t cancelled = route.cancellable->cancel_all();
    if (route.connection != nullptr) route.connection->exchange_lock().wake();
    state_->waiting.wake_cancelled();
    return cancelled;
}

std::string JovuTransport::last_send_error() {
    return {last_error.text.data(), last_error.length};
}

JovuError JovuTransport::last_send_error_code() noexcept {
    return last_error.code;
}

void JovuTransport::send_message(JovuMessage& message, JovuDeviceAddress address) {
    const jovu::CallsInProgress::Call call(state_->exchanges);
    state_->exchanged = true;
    try {
        if (!call) throw JovuException(kDisconnected, JovuError::shut_down);
        exchange(message, address);
        // Afterwards: a handler that this thread has called meanwhile may have failed to send.
        set_last_error("", JovuError::none);
    } catch (const JovuException& error) {
        jovu::log(JovuLogLevel::error, address, "JovuMessage: %u -- %s", message.id(),
                  error.what());
        set_last_error(error.what(), error.code());
    } catch (const std::exception& error) {
        set_last_error(error.what(), JovuError::unspecified);
    }
}

void JovuTransport::exchange(JovuMessage& message, JovuDeviceAddress address) {
    const State::Route route = state_->route(address);
    if (route.connection == nullptr)
        throw JovuException(kDisconnected, not_connected_error(address));
    if (JovuUsb::in_callback()) {
        // Another thread may hold the exchange lock and wait for a response that only this thread
        // can dispatch. The write fails at once, with the reason.
        write_frame(*route.connection, message.compile());
        return;
    }
    jovu::CancellableExchanges::Ticket ticket(*route.cancellable);
    try {
        state_->exchange(message, *route.connection, ticket);
    } catch (const JovuException&) {
        // Whatever else ends a cancelled exchange, it has been counted as cancelled.
        if (ticket.finish()) throw;
        throw JovuException("Transport Error - Cancelled.", JovuError::cancelled);
    }
}

void JovuTransport::State::exchange(JovuMessage& message, jovu::Connection& connection,
                                    jovu::CancellableExchanges::Ticket& ticket) {
    // One exchange at a time with a device, whichever client of the process makes it.
    const auto usable = [&] {
        return !connection.closing() && !exchanges.closed() && !ticket.cancelled();
    };
    const auto fail_unusable = [&] {
        throw JovuException(
            kDisconnected, exchanges.closed() ? JovuError::shut_down : connection.not_open_error());
    };
    jovu::FairLock& exchange_lock = connection.exchange_lock();
    if (!exchange_lock.lock_while(usable)) fail_unusable();
    const std::unique_lock<jovu::FairLock> lock(exchange_lock, std::adopt_lock);
    if (!message.twoway()) {
        if (!ticket.finish()) fail_unusable();
        write_frame(connection, message.compile());
        return;
    }

    bool woken = false;
    {
        // Waiting before the request is sent: the response may arrive at once. A close, a shutdown
        // or a cancellation from here on wakes the request; one before it is seen by the check.
        jovu::ResponseSignal signal;
        const jovu::WaitingRequests::Entry entry(waiting, message, signal, connection, ticket);
        if (!usable()) fail_unusable();
        write_frame(connection, message.compile());
        woken = signal.wait(scoped_timeout.count() != 0 ? scoped_timeout : response_timeout.load());
    }

    // The entry is gone, so no other thread touches the message any more.
    if (!woken) {
        throw JovuException("Transport Error - Waiting for response to request timed out.",
                            JovuError::response_timed_out);
    }
    if (!message.response_available()) {
        throw JovuException("Transport Error - No response received.", JovuError::no_response);
    }
}
