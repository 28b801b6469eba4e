// SPDX-License-Identifier: Apache-2.0

/// @file
/// The message channel: what an application sees of it.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "jovu/device_address.h"
#include "jovu/devices.h"
#include "jovu/exception.h"
#include "jovu/export.h"
#include "jovu/scan_pause.h"
#include "jovu/usb_client.h"

class JovuEventInterface;
class JovuMessage;
struct yajl_val_s;

/// Carries messages to and from devices on the message channel (USB interface number 0): frames
/// them, matches responses with the requests that wait for them, and notifies of devices.
///
/// An application does not derive from this class but from JovuClient.
class JOVU_API JovuTransport : private JovuUsbClient {
public:
    JovuTransport(const JovuTransport&) = delete;
    JovuTransport& operator=(const JovuTransport&) = delete;

    /// As shutdown(). Not in a handler that is called with received data.
    ~JovuTransport() override;

    /// Closes a device; device_disconnected() follows. It stays in list_connected(), closed, until
    /// it is unplugged, and is not opened again before it is plugged in again. Until then exchanges
    /// with it fail with JovuError::closed.
    ///
    /// Threads: any. In a handler that is called with received data the call only orders the close,
    /// which the watcher carries out after the handler has returned.
    /// @throws JovuException "Close failed - Device no longer connected." for an unknown or already
    ///     closed device.
    void close(JovuDeviceAddress address);

    /// The devices that the library has opened and that are still on the bus, in no particular
    /// order. Threads: any, never blocks for long.
    std::vector<JovuDeviceAddress> list_connected() const;

    /// Every device of the accepted vendor that is on the bus now, opened or not, in the order of
    /// the bus enumeration. Threads: any; opens nothing.
    /// @throws JovuException "Failed to get libusb device list."
    std::vector<JovuUsbDevice> list_attached() const;

    /// Opens a device again that close() has closed, as if it had been plugged in anew:
    /// device_connected() follows. Threads: any, in a callback too.
    /// @throws JovuException "Reopen failed - Device is open." or, for an unknown device,
    ///     "Reopen failed - Device no longer connected."
    void reopen(JovuDeviceAddress address);

    /// Chooses the devices that this process opens, for all of its clients. The others are neither
    /// opened nor probed, so that other programs can use them. Open devices that the new filter
    /// leaves out are closed; device_disconnected() follows.
    ///
    /// Best called before the first client is constructed. Threads: any; returns at once, the
    /// watcher thread carries it out.
    static void set_device_filter(JovuDeviceFilter filter);

    /// Every device of the accepted vendor that is on the bus now, with its state in this process,
    /// in the order of the bus enumeration. Threads: any; opens nothing.
    /// @throws JovuException "Failed to get libusb device list."
    static std::vector<JovuDeviceInfo> list_devices();

    /// Whether the watcher thread runs. False once an error has ended it, with one line on standard
    /// output: no connection or disconnection is notified any more, and data is received only while
    /// something is being sent. The USB connection works again once its last
    /// client has been destroyed and another one is constructed. Threads: any; never blocks.
    static bool is_watching() noexcept;

    /// Why the calling thread's last exchange failed: the reason that stands in the diagnostic line
    /// on standard output. Empty after a response, or (for a message without a response) once it
    /// was sent. Each thread has its own; empty before its first exchange.
    static std::string last_send_error();

    /// The kind of that failure; JovuError::none where last_send_error() is empty.
    static JovuError last_send_error_code() noexcept;

    /// A device is connected and accepts commands. Called on a notification thread, which is
    /// neither the caller's nor the one that receives data; several notifications may share one.
    /// May send commands to the device, and must not throw, as an exception on that thread ends the
    /// process. Such calls may overlap with one another and with device_disconnected(), and come in
    /// any order when a device is replugged quickly.
    virtual void device_connected(JovuDeviceAddress address) = 0;

    /// A device is disconnected: requests that waited for it have failed and no exchange with it is
    /// running any more. Called on a notification thread; must not throw.
    virtual void device_disconnected(JovuDeviceAddress address) = 0;

    /// A controller is attached and cannot be opened: not_permitted, in_use or failed. Called once
    /// for each reason, on a notification thread; must not throw. The library tries again with
    /// every scan; device_connected() follows when the reason has ended. Empty by default.
    virtual void device_unavailable(const JovuDeviceInfo& device);

    /// Unregisters this object. When it returns, no notification thread and no handler of
    /// this object is running (but one that made the call), none will follow, requests that waited
    /// have failed, and later ones fail at once. May be called more than once. A class derived from
    /// this one calls it first in its own destructor, while its overrides and members are still
    /// there to be used.
    ///
    /// In a handler that is called with received data it cannot wait for other callbacks: none
    /// begins after it returns, and the rest is left to a later call or the destructor.
    void shutdown();

    /// Chooses how responses are matched with the requests of this object.
    ///
    /// By default the message id alone decides, so any attached device can respond to a command
    /// for another one. With strict matching a response must arrive on the
    /// connection that its request was sent to and, where it names a command, name the same one.
    /// Any other response is dropped, with one line on standard output per request, and the request
    /// goes on waiting. Message ids then begin at a random number in each process, so that a
    /// response that an ended process left unread in the device is not taken for a new one's, and a
    /// frame that one connection began is not completed by the next one at its address.
    ///
    /// Choose strict matching unless devices are known to send responses through one another or
    /// under other names. Call it before devices connect: first thing in the constructor of a class
    /// that takes a JovuScanPause.
    /// @throws JovuException once an exchange of this object has begun, or when the system has no
    ///     random numbers.
    void set_strict_matching(bool strict);

    /// Sets how long the exchanges of this object that begin from now on wait for their response;
    /// 15 s at first. A thread's JovuResponseTimeout takes precedence. Threads: any.
    /// @param limit 10 ms to 24 h.
    /// @throws JovuException with JovuError::rejected when it is not; its message names the value.
    void set_response_timeout(std::chrono::milliseconds limit);

    /// Cancels the exchanges of this object with a device that wait for their turn or for their
    /// response. They fail with "Transport Error - Cancelled." and JovuError::cancelled; the device
    /// stays open, and exchanges that begin after this call work. A request that has been sent may
    /// be carried out nevertheless; its response is dropped when it arrives. One that is just being
    /// sent is sent to its end first.
    ///
    /// Threads: any, in a callback too. The call does not wait for the exchanges to return.
    /// @return how many exchanges it has cancelled.
    std::size_t cancel_exchanges(JovuDeviceAddress address);

    /// Sends a message and, if it expects a response, waits for it. Used by the library's own
    /// messages. Throws nothing: a failure is printed as one line on standard output, is returned
    /// by last_send_error(), and leaves the message without a response.
    /// @param message stays the caller's.
    void send_message(JovuMessage& message, JovuDeviceAddress address);

    /// The names of a set of message attributes, in the order of an envelope.
    /// @param flags bits 1 "request", 2 "response", 4 "oneway", 8 "twoway", 16 "ack".
    static std::vector<std::string> attrs(unsigned flags);

protected:
    /// Registers for the message channel; starts the USB connection on first use.
    ///
    /// A class derived from this one alone takes a JovuScanPause as the default argument of its
    /// constructor: without it, its callbacks may begin before it is built.
    /// @param events receives the events of the same client; stays the caller's and outlives this
    ///     object. Null to ignore events.
    /// @throws JovuException "Failed to initialize libusb", or when called from inside a callback
    ///     with received data; std::system_error when no thread can be started.
    explicit JovuTransport(JovuEventInterface* events = nullptr);

private:
    friend class JovuEvent;
    JOVU_LOCAL JovuEventInterface* event_interface() const noexcept;

    void connection_opened(const std::shared_ptr<jovu::Connection>& connection) override;
    void usb_device_connected(JovuDeviceAddress address) override;
    void usb_device_disconnected(JovuDeviceAddress address) override;
    void usb_device_unavailable(const JovuDeviceInfo& device) override;
    void data_received(unsigned char* data, unsigned int length,
                       JovuDeviceAddress address) override;

    JOVU_LOCAL void process_data_receive(unsigned char* payload, unsigned int length,
                                         JovuDeviceAddress address);
    JOVU_LOCAL std::shared_ptr<JovuMessage> parse_message(yajl_val_s* transport, yajl_val_s* data);
    JOVU_LOCAL void exchange(JovuMessage& message, JovuDeviceAddress address);

    struct JOVU_LOCAL State;
    std::shared_ptr<State> state_;
};
