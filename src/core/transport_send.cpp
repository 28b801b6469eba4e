/// @file
/// Sending a message and waiting for its answer.
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "core/last_send_error.h"
#include "core/message.h"
#include "core/transport_state.h"
#include "jovu/exception.h"
#include "jovu/transport.h"
#include "usb/usb.h"

namespace {

constexpr const char* kDisconnected = "Transport Error - Device has been disconnected.";

/// The turn to exchange messages with a device, for a scope.
class SendTurn {
public:
    /// @throws JovuException when the device has gone, or goes while the turn is waited for.
    SendTurn(jovu::SendLocks& locks, JovuDeviceAddress address,
             std::shared_ptr<jovu::SendLock> lock)
        : locks_(locks), address_(address), lock_(std::move(lock)) {
        if (!lock_->enter([this] { return connected(); })) throw JovuException(kDisconnected);
    }
    ~SendTurn() { lock_->leave(); }
    SendTurn(const SendTurn&) = delete;
    SendTurn& operator=(const SendTurn&) = delete;

    void check() const {
        if (!connected()) throw JovuException(kDisconnected);
    }
    JovuUsb::connection_t connection() const noexcept { return lock_->connection(); }

private:
    bool connected() const { return locks_.find(address_) == lock_; }

    jovu::SendLocks& locks_;
    const JovuDeviceAddress address_;
    const std::shared_ptr<jovu::SendLock> lock_;
};

/// Caller holds the device's send lock, so the frames of two senders do not mix.
void send_command_data(const std::string& json, JovuDeviceAddress address,
                       JovuUsb::connection_t connection) {
    const jovu::Frame frame = jovu::make_frame(json);
    // A header whose body does not follow would have the device take the next frame for the body.
    JovuUsb::write({{frame.header, sizeof frame.header},
                    {reinterpret_cast<const unsigned char*>(frame.body.data()),
                     static_cast<unsigned int>(frame.body.size())}},
                   address, JovuUsb::JOVU_USB_INTERFACE_MESSAGES, connection);
}

void print_failure(unsigned id, const char* what) noexcept {
    std::fprintf(stdout, "JovuMessage: %u -- %s\n", id, what);
    std::fflush(stdout);
}

}  // namespace

void JovuTransport::send_message(JovuMessage& message, JovuDeviceAddress address) {
    const jovu::CallsInProgress::Call call(state_->exchanges);
    state_->exchanged = true;
    jovu::set_last_send_error("");
    try {
        if (!call) throw JovuException(kDisconnected);
        exchange(message, address);
    } catch (const JovuException& error) {
        print_failure(message.id(), error.what());
        jovu::set_last_send_error(error.what());
    } catch (const std::exception& error) {
        jovu::set_last_send_error(error.what());
    }
}

void JovuTransport::exchange(JovuMessage& message, JovuDeviceAddress address) {
    std::shared_ptr<jovu::SendLock> lock = state_->device_mutexes.find(address);
    if (lock == nullptr) throw JovuException(kDisconnected);
    if (JovuUsb::delivering()) {
        // The send lock may be held by a sender whose answer only this thread can deliver, so it is
        // not waited for. The link refuses the write, with the reason.
        send_command_data(message.compile(), address, lock->connection());
        return;
    }
    const SendTurn turn(state_->device_mutexes, address, std::move(lock));
    if (!message.twoway()) {
        send_command_data(message.compile(), address, turn.connection());
        return;
    }
    bool woken = false;
    {
        jovu::ResponseSignal signal;
        const jovu::WaitingRequests::Entry entry(state_->waiting, message, signal, address,
                                                 turn.connection());
        turn.check();
        send_command_data(message.compile(), address, turn.connection());
        woken = signal.wait(jovu::kResponseTimeout);
    }
    // Out of the table, so nobody else touches the message any more.
    if (!woken) {
        throw JovuException("Transport Error - Waiting for response to request timed out.");
    }
    if (!message.response_available()) {
        throw JovuException("Transport Error - No response received.");
    }
}
