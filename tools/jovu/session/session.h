// SPDX-License-Identifier: Apache-2.0

/// @file
/// The USB connection of a command: device selection, and exchanges that Ctrl-C ends.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cli/failure.h"
#include "cli/options.h"
#include "jovu/device_address.h"
#include "jovu/exception.h"
#include "jovu/response_timeout.h"
#include "posix/stop_source.h"
#include "session/attached_devices.h"
#include "session/notification_queue.h"

namespace jovu_cli {

/// JovuUsbDevice::type of the devices that the library opens.
constexpr int kControllerType = 1;

/// The longest time-out that the library accepts.
constexpr std::chrono::milliseconds kMaxResponseTimeout = std::chrono::hours(24);

/// @param what was attempted.
/// @return the Failure for an exception of the library, with what the user can do about it.
Failure exchange_failure(const std::string& what, const JovuException& error);

/// A controller that is attached and cannot be opened.
struct UnopenedController {
    JovuDeviceAddress address;
    Obstacle obstacle;
};

/// Owns the USB connection: the library's client and the notifications.
class Session {
public:
    /// Starts the connection.
    /// @throws Failure when it cannot be started.
    Session(const CommonOptions& options, StopSource& stop, Interest interest);
    /// Prepares for the next command on the same connection and drops queued notifications.
    void begin(const CommonOptions& options, Interest interest);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// The library's client. Calls that wait for a device must be made in exchange().
    Client& client() noexcept { return *client_; }
    NotificationQueue& notifications() noexcept { return notifications_; }
    const StopSource& stop() const noexcept { return stop_; }
    /// Whether a device was closed to end an exchange. Only a new session opens it again.
    bool has_closed() const noexcept { return has_closed_; }
    /// Whether an error has ended the connection. find_devices() or a new session restarts it.
    bool has_ended() const noexcept { return client_ == nullptr || !Client::is_watching(); }

    /// Waits until all attached controllers are connected, at most for the time in the options.
    /// Restarts a connection that an error has ended, once for each command.
    /// @return the connected devices in the order of their addresses; only the chosen device when
    ///     one was chosen. May be empty.
    /// @throws Failure when the program is to end; no_device when the connection ends again.
    std::vector<JovuDeviceAddress> find_devices();

    /// As find_devices(), for a command that uses exactly one device.
    /// @throws Failure also no_device or several_devices.
    JovuDeviceAddress pick_device();

    /// Sets a check of each device that a command picks: it throws when the device must not be
    /// used.
    void set_pick_check(std::function<void(JovuDeviceAddress)> check) {
        pick_check_ = std::move(check);
    }
    /// Runs the check, for a command that does not use pick_device().
    /// @throws what the check throws.
    void check_pick(JovuDeviceAddress address) const {
        if (pick_check_) {
            pick_check_(address);
        }
    }

    /// @throws Failure no_device with the reason, as far as it can be found.
    [[noreturn]] void throw_no_device();

    /// @return the controllers that are attached and not open, each with the reason, as far as the
    ///     system shows them; none that is left to other programs because another one is chosen.
    std::vector<UnopenedController> unopened_controllers() const;

    /// Makes one exchange with a device. A signal cancels it; a device that takes no data is closed
    /// to end it. Any thread.
    /// @param name of the exchange, for messages.
    /// @param call a function without arguments that calls one command of client().
    /// @return the result of @p call.
    /// @throws Failure exchange_failed, or interrupted (with a message: the device may have acted).
    template <class Call>
    auto exchange(JovuDeviceAddress address, const std::string& name, Call call) {
        std::promise<void> promise;
        const StopSource::Action canceller(
            stop_, [this, address, ended = promise.get_future().share()](Stop reason) {
                cancel_on_signal(address, reason, ended);
            });
        // Destroyed before the canceller, which then waits no longer for the end of the exchange.
        const std::promise<void> running = std::move(promise);
        stop_.throw_if_stopped();
        std::optional<JovuResponseTimeout> limit;
        if (options_.timeout) {
            limit.emplace(std::min(*options_.timeout, kMaxResponseTimeout));
        }
        auto result = call();
        check_exchange(address, name);
        return result;
    }

    /// Makes one exchange that must complete, also when the program is to end. Closes the device
    /// when it does not respond within the limits; any notification is a sign of life.
    /// @throws Failure as exchange().
    template <class Call>
    void finish_exchange(JovuDeviceAddress address, const std::string& name,
                         Watchdog::Limits limits, Call call) {
        const auto alive = [this, seen = notifications_.posted()]() mutable {
            return std::exchange(seen, notifications_.posted()) != notifications_.posted();
        };
        const Watchdog watchdog(stop_, limits, alive, [this, address] { close(address); });
        call();
        check_exchange(address, name);
    }

    /// @return the devices that can be used at this moment, in the order of their addresses.
    std::vector<JovuDeviceAddress> usable_devices();

    /// Whether a device is open.
    bool is_connected(JovuDeviceAddress address) const;

    /// Makes a call that sends on the job channel, where requests have no response.
    /// @param name of the request, for messages.
    /// @throws Failure exchange_failed when @p call threw a JovuException, or interrupted.
    template <class Call>
    void send(JovuDeviceAddress address, const std::string& name, Call call) {
        stop_.throw_if_stopped();
        try {
            call();
        } catch (const JovuException& error) {
            stop_.throw_if_stopped();  // After Ctrl-C the error is of no interest.
            throw failure_at(address, name, error);
        }
    }

    /// Requests a status report and waits for it. Reports carry no number: counting and a short
    /// wait separate it from reports that this program or an earlier one requested before.
    /// @param deadline when to give up, at the latest.
    /// @throws Failure exchange_failed, also when the device disconnects, or interrupted.
    StatusReport request_status(JovuDeviceAddress address,
                                NotificationQueue::Clock::time_point deadline =
                                    NotificationQueue::Clock::time_point::max());

    /// The next notification, as NotificationQueue::next().
    /// @throws Failure exchange_failed when the connection has ended.
    std::optional<Notification> next_notification(NotificationQueue::Clock::time_point deadline);

    /// Waits until @p time and drops the notifications that arrive.
    /// @throws Failure exchange_failed when the device disconnects or the connection ends, or
    ///     interrupted.
    void wait_until(JovuDeviceAddress address, NotificationQueue::Clock::time_point time);

    /// @throws Failure exchange_failed when the notification is the disconnect of this device.
    void check_connected(JovuDeviceAddress address, const Notification& notification) const;

private:
    void start();
    void restart();
    Failure failure_at(JovuDeviceAddress address, const std::string& name,
                       const JovuException& error) const;
    bool worth_waiting(const std::vector<JovuDeviceAddress>& usable, bool found);
    /// @return the attached devices that match the options; all when none is chosen.
    std::vector<JovuDeviceInfo> chosen_devices() const;
    void drop_stale_reports(JovuDeviceAddress address);
    void cancel_on_signal(JovuDeviceAddress address, Stop reason,
                          const std::shared_future<void>& ended) noexcept;
    void close(JovuDeviceAddress address) noexcept;
    void check_exchange(JovuDeviceAddress address, const std::string& name) const;

    CommonOptions options_;
    StopSource& stop_;
    NotificationQueue notifications_;
    std::atomic<bool> has_closed_{false};
    /// Number of status requests without a report, by device; a dropped report makes it too large.
    /// No entry: no request was sent to the device yet.
    std::unordered_map<JovuDeviceAddress, unsigned> pending_reports_;
    std::unique_ptr<Client> client_;  ///< Null when the restart failed.
    bool restarted_ = false;          ///< By this command.
    std::function<void(JovuDeviceAddress)> pick_check_;
};

/// The strings by which a controller identifies itself.
struct Identity {
    std::string version;
    std::string serial;
};

/// Reads a device's version and serial number. Any thread.
/// @throws Failure as Session::exchange().
Identity read_identity(Session& session, JovuDeviceAddress address);

/// As read_identity(), for the serial number alone.
std::string read_serial(Session& session, JovuDeviceAddress address);

}  // namespace jovu_cli
