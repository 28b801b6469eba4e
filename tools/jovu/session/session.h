/// @file
/// A command's link to the devices: which of them it talks to, and exchanges that Ctrl-C ends.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
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
#include "posix/stop_source.h"
#include "session/attached_devices.h"
#include "session/notification_queue.h"

namespace jovu_cli {

/// JovuUsbDevice::type of the devices that the library opens.
constexpr int kControllerType = 1;

/// What can be done about an exchange that failed.
/// @param reason a text of the library.
/// @return empty when there is nothing to advise.
std::string exchange_hint(const std::string& reason);

/// The Failure for an exception of the library that a call about a device ended with.
Failure exchange_failure(const std::string& what, const std::string& reason);

/// A controller that is attached and could not be opened.
struct UnopenedController {
    JovuDeviceAddress address;
    Obstacle obstacle;
};

/// The USB connection, from construction to destruction.
class Session {
public:
    /// Starts the connection.
    /// @throws Failure when it cannot be started.
    Session(const CommonOptions& options, StopSource& stop, Interest interest);
    /// Begins with another command, on the same connection. What the one before left is forgotten.
    void begin(const CommonOptions& options, Interest interest);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// The library. Calls that wait for a device belong into exchange().
    Client& client() noexcept { return *client_; }
    NotificationQueue& notifications() noexcept { return notifications_; }
    const StopSource& stop() const noexcept { return stop_; }
    /// Whether a device was closed to end an exchange with it. Only a new session opens it again.
    bool has_closed() const noexcept { return has_closed_; }
    /// Whether the link has ended by an error. Only a new session has another one.
    bool has_ended() const noexcept { return client_ == nullptr || !Client::is_watching(); }

    /// Waits until all that is attached is connected, or as long as the options say. A connection
    /// that has ended by an error is started again, once for each command.
    /// @return what is connected then, in the order of the addresses; only the chosen device when
    ///     one was chosen. May be empty.
    /// @throws Failure when the program is to end; no_device when the connection ends again.
    std::vector<JovuDeviceAddress> find_devices();

    /// The one device that the command is for. As find_devices(), but for anything but one device:
    /// @throws Failure no_device or several_devices.
    JovuDeviceAddress pick_device();

    /// Has each device that a command picks looked at: @p check throws when it must not be used.
    void set_pick_check(std::function<void(JovuDeviceAddress)> check) {
        pick_check_ = std::move(check);
    }
    /// As pick_device() checks what it returns, for a command that picks a device by itself.
    /// @throws what the check throws.
    void check_pick(JovuDeviceAddress address) const {
        if (pick_check_) {
            pick_check_(address);
        }
    }

    /// Says why there is no device for the command, as well as it can be told.
    [[noreturn]] void throw_no_device();

    /// The controllers that are attached and not open, each with the reason; as far as the system
    /// tells.
    std::vector<UnopenedController> unopened_controllers() const;

    /// Makes one exchange with a device. An interrupt ends it at once, by closing the device.
    /// Any thread.
    /// @param name what is exchanged, for the message.
    /// @param call a function without arguments that calls one command of client().
    /// @return what @p call returned.
    /// @throws Failure exchange_failed, or interrupted (with a text, as the device may have acted).
    template <class Call>
    auto exchange(JovuDeviceAddress address, const std::string& name, Call call) {
        const StopSource::Action closer(
            stop_, [this, address](Stop reason) { close_on_signal(address, reason); });
        stop_.throw_if_stopped();
        auto result = call();
        check_exchange(address, name);
        return result;
    }

    /// Makes one exchange whose outcome must be known, and that is made also when the program is to
    /// end. The device is closed when it does not answer within the limits; what it sends
    /// otherwise is a sign of life.
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

    /// The devices that can be talked to at this moment, in the order of their addresses.
    std::vector<JovuDeviceAddress> usable_devices();

    /// Whether a device is there and open.
    bool is_connected(JovuDeviceAddress address) const;

    /// Makes a call that sends on the job channel, where nothing is answered.
    /// @param name what is sent, for the message.
    /// @throws Failure exchange_failed when @p call threw a JovuException, or interrupted.
    template <class Call>
    void send(JovuDeviceAddress address, const std::string& name, Call call) {
        stop_.throw_if_stopped();
        try {
            call();
        } catch (const JovuException& error) {
            stop_.throw_if_stopped();  // Whoever has pressed Ctrl-C need not hear of it.
            throw failure_at(address, name, error.what());
        }
    }

    /// Asks a device for its status report and waits for it. Reports carry no number, so one that
    /// was requested before, by this program or by one that was killed, is told apart by counting
    /// and by a short wait.
    /// @throws Failure exchange_failed, also when the device goes away, or interrupted.
    StatusReport request_status(JovuDeviceAddress address);

    /// The next notification of the notifications, as NotificationQueue::next().
    /// @throws Failure exchange_failed when the link has ended, so that none would come.
    std::optional<Notification> next_notification(NotificationQueue::Clock::time_point deadline);

    /// Waits for the next report's time. What comes in meanwhile is dropped.
    /// @throws Failure exchange_failed when the device goes or the link ends, or interrupted.
    void wait_until(JovuDeviceAddress address, NotificationQueue::Clock::time_point time);

    /// @throws Failure exchange_failed when the notification says that this device is gone.
    void check_connected(JovuDeviceAddress address, const Notification& notification) const;

private:
    void start();
    void restart();
    Failure failure_at(JovuDeviceAddress address, const std::string& name,
                       const std::string& reason) const;
    bool worth_waiting(const std::vector<JovuDeviceAddress>& usable, bool found);
    std::size_t attached_controllers();
    void drop_stale_reports(JovuDeviceAddress address);
    void close_on_signal(JovuDeviceAddress address, Stop reason);
    void close(JovuDeviceAddress address) noexcept;
    void check_exchange(JovuDeviceAddress address, const std::string& name) const;

    CommonOptions options_;
    StopSource& stop_;
    NotificationQueue notifications_;
    std::atomic<bool> has_closed_{false};
    /// How many status requests each device has not answered; at least, as a report may have been
    /// dropped. Has no entry for a device that was never asked.
    std::unordered_map<JovuDeviceAddress, unsigned> pending_reports_;
    std::unique_ptr<Client> client_;  ///< Null when it could not be started again.
    bool restarted_ = false;          ///< By this command.
    std::function<void(JovuDeviceAddress)> pick_check_;
};

/// The texts that a controller identifies itself with.
struct Identity {
    std::string version;
    std::string serial;
};

/// Asks a device for its version and serial number. Any thread.
/// @throws Failure as Session::exchange().
Identity read_identity(Session& session, JovuDeviceAddress address);

/// As read_identity(), for the serial number alone.
std::string read_serial(Session& session, JovuDeviceAddress address);

}  // namespace jovu_cli
