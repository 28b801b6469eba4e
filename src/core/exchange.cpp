/// @file
/// An exchange: a request is sent and its response awaited.
#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/log.h"
#include "core/frame.h"
#include "core/message.h"
#include "core/transport_state.h"
#include "core/waiting_requests.h"
#include "jovu/exception.h"
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
    const std::shared_ptr<jovu::Connection> connection = state_->connection(address);
    if (connection == nullptr) throw JovuException(kDisconnected, JovuError::disconnected);
    if (JovuUsb::in_callback()) {
        // Another thread may hold the exchange lock and wait for a response that only this thread
        // can dispatch. The write fails at once, with the reason.
        write_frame(*connection, message.compile());
        return;
    }

    // One exchange at a time with a device, whichever client of the process makes it.
    const auto usable = [&] { return !connection->closing() && !state_->exchanges.closed(); };
    const auto fail_unusable = [&] {
        throw JovuException(kDisconnected, state_->exchanges.closed() ? JovuError::shut_down
                                                                      : JovuError::disconnected);
    };
    jovu::FairLock& exchange_lock = connection->exchange_lock();
    if (!exchange_lock.lock_while(usable)) fail_unusable();
    const std::unique_lock<jovu::FairLock> lock(exchange_lock, std::adopt_lock);
    if (!message.twoway()) {
        write_frame(*connection, message.compile());
        return;
    }

    bool woken = false;
    {
        // Waiting before the request is sent: the response may arrive at once. A close or shutdown
        // from here on wakes the request; one before it is seen by the check.
        jovu::ResponseSignal signal;
        const jovu::WaitingRequests::Entry entry(state_->waiting, message, signal, *connection);
        if (!usable()) fail_unusable();
        write_frame(*connection, message.compile());
        woken = signal.wait(jovu::kResponseTimeout);
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
