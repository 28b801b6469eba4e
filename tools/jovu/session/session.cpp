// SPDX-License-Identifier: Apache-2.0
#include "session/session.h"

#include <algorithm>
#include <chrono>
#include <functional>

#include "session/device_names.h"
#include "terminal/output.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;

/// How long a command waits for attached devices without --wait-device. The library opens them at
/// once and tries again twice a second; a device that is not open after this time cannot be opened.
constexpr std::chrono::milliseconds kDefaultWait = 2s;

/// A device responds in milliseconds. A report can stay in the device's buffer until more bytes
/// follow, so the request is repeated; only once, because a device that waits for the rest of a job
/// reads each request as job data.
constexpr auto kReportRepeat = 5s;
constexpr int kReportAttempts = 2;

/// A report of an earlier request arrives within kQuietTime after the device was opened or after
/// another such report, and within kFurtherReportLimit after a report when several are pending.
constexpr auto kQuietTime = 50ms;
constexpr auto kMaxQuietWait = 2s;
constexpr auto kFurtherReportLimit = 500ms;

/// How often a wait checks that the USB connection has not ended.
constexpr auto kConnectionCheck = 200ms;

/// How long a cancelled exchange may take to send the rest of its frame before the device is
/// closed.
constexpr auto kCancelLimit = 300ms;
constexpr auto kCancelRepeat = 20ms;

constexpr const char* kWaitHint = "--wait-device SECONDS waits for one";

bool contains(const std::vector<JovuDeviceAddress>& addresses, JovuDeviceAddress address) {
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

bool contains(const std::vector<JovuDeviceInfo>& devices, JovuDeviceAddress address) {
    return std::any_of(devices.begin(), devices.end(), [address](const JovuDeviceInfo& device) {
        return device.address == address;
    });
}

/// @return the elements for which a condition holds.
template <class Element, class Condition>
std::vector<Element> those_with(std::vector<Element> elements, Condition condition) {
    elements.erase(std::remove_if(elements.begin(), elements.end(), std::not_fn(condition)),
                   elements.end());
    return elements;
}

std::vector<JovuDeviceInfo> controllers() {
    return those_with(Client::list_devices(),
                      [](const JovuDeviceInfo& device) { return device.type == kControllerType; });
}

bool is_left_out(const JovuDeviceInfo& device) {
    return device.state == JovuDeviceState::left_out;
}

/// @return how many controllers are attached that this process is to open.
std::size_t attached_controllers() {
    return those_with(controllers(), std::not_fn(is_left_out)).size();
}

/// @return what is known of the devices at these addresses.
std::vector<JovuDeviceInfo> look_up(const std::vector<JovuDeviceAddress>& addresses) {
    return those_with(Client::list_devices(), [&](const JovuDeviceInfo& device) {
        return contains(addresses, device.address);
    });
}

/// @return the devices with their serial numbers, separated by ", ".
std::string describe(std::vector<JovuDeviceInfo> devices) {
    std::sort(devices.begin(), devices.end(), [](const auto& one, const auto& another) {
        return comes_before(one.address, another.address);
    });
    std::string list;
    for (const JovuDeviceInfo& device : devices) {
        list += (list.empty() ? "" : ", ") + to_string(device.address);
        if (!device.serial.empty()) {
            list += " serial " + printable(device.serial);
        }
    }
    return list;
}

std::string without_period(std::string message) {
    if (!message.empty() && message.back() == '.') {
        message.pop_back();
    }
    return message;
}

std::string to_string(const std::shared_ptr<char>& response) {
    return response ? response.get() : "";
}

}  // namespace

Session::Session(const CommonOptions& options, StopSource& stop, Interest interest)
    : options_(options), stop_(stop), notifications_(stop, interest) {
    start();
}

void Session::start() try {
    client_ = std::make_unique<Client>(notifications_);
} catch (const JovuException& error) {
    throw Failure(ExitCode::failure,
                  std::string("cannot start the USB connection: ") + error.what(),
                  "check that this machine has USB and that /dev/bus/usb is accessible");
}

/// Restarts the connection after an error has ended it.
void Session::restart() {
    if (restarted_) {
        throw Failure(ExitCode::no_device,
                      "the USB connection has ended again, for the reason given above",
                      "this can happen when memory has run out");
    }
    restarted_ = true;
    print_error(
        "jovu: the USB connection has ended, for the reason given above: starting it again");
    client_.reset();
    notifications_.clear_devices();
    pending_reports_.clear();
    has_closed_ = false;
    start();
}

void Session::begin(const CommonOptions& options, Interest interest) {
    options_ = options;
    notifications_.begin(interest);
    restarted_ = false;
}

std::vector<JovuDeviceAddress> Session::find_devices() {
    auto deadline = NotificationQueue::Clock::now() + options_.wait_device.value_or(kDefaultWait);
    bool found = false;
    for (;;) {
        stop_.throw_if_stopped();
        if (has_ended()) {
            restart();
            deadline = std::max(deadline, NotificationQueue::Clock::now() + kDefaultWait);
        }
        const std::vector<JovuDeviceAddress> usable = usable_devices();
        std::vector<JovuDeviceAddress> devices = usable;
        if (options_.chooses_device()) {
            const std::vector<JovuDeviceInfo> chosen = chosen_devices();
            devices = those_with(
                usable, [&](JovuDeviceAddress address) { return contains(chosen, address); });
        }
        if (!worth_waiting(usable, !devices.empty())) {
            return devices;
        }
        if (!found && !devices.empty()) {
            // Other devices may follow, except those that another program has open.
            found = true;
            deadline = std::min(deadline, NotificationQueue::Clock::now() + kDefaultWait);
        }
        const auto now = NotificationQueue::Clock::now();
        // Check again after any notification.
        if (!notifications_.next(std::min(deadline, now + kConnectionCheck)) && now >= deadline) {
            stop_.throw_if_stopped();
            return devices;
        }
    }
}

JovuDeviceAddress Session::pick_device() {
    const std::vector<JovuDeviceAddress> devices = find_devices();
    if (devices.empty()) {
        throw_no_device();
    }
    if (devices.size() > 1) {
        throw Failure(ExitCode::several_devices, "several devices: " + describe(look_up(devices)),
                      "choose one with -d, -s or --port");
    }
    check_pick(devices.front());
    return devices.front();
}

/// Whether a device for the command may still connect.
/// @param found whether a device for the command is connected.
bool Session::worth_waiting(const std::vector<JovuDeviceAddress>& usable, bool found) {
    if (options_.chooses_device() && found) {
        return false;
    }
    if (options_.wait_device && !found) {
        return true;
    }
    return usable.size() < attached_controllers();
}

std::vector<JovuDeviceAddress> Session::usable_devices() {
    // A device is in the library's list a moment before it can be used.
    const std::vector<JovuDeviceAddress> reported = notifications_.connected();
    std::vector<JovuDeviceAddress> devices;
    for (const JovuDeviceAddress address : client_->list_connected()) {
        if (contains(reported, address)) {
            devices.push_back(address);
        }
    }
    std::sort(devices.begin(), devices.end(), comes_before);
    return devices;
}

bool Session::is_connected(JovuDeviceAddress address) const {
    return contains(client_->list_connected(), address);
}

std::vector<JovuDeviceInfo> Session::chosen_devices() const {
    const JovuDeviceFilter filter = options_.filter();
    return those_with(Client::list_devices(),
                      [&](const JovuDeviceInfo& device) { return filter.matches(device); });
}

std::vector<UnopenedController> Session::unopened_controllers() const {
    const std::vector<JovuDeviceAddress> connected = client_->list_connected();
    const std::vector<JovuDeviceInfo> left_out = those_with(controllers(), is_left_out);
    std::vector<UnopenedController> unopened;
    for (const AttachedDevice& device : attached_devices()) {
        if (device.kind == AttachedDevice::Kind::controller &&
            !contains(connected, device.address) && !contains(left_out, device.address)) {
            unopened.push_back({device.address, obstacle_at(look_at_node(device))});
        }
    }
    return unopened;
}

void Session::throw_no_device() {
    const auto failure = [](const std::string& what, const std::string& hint) {
        return Failure(ExitCode::no_device, what, hint);
    };
    const std::vector<JovuDeviceInfo> chosen = chosen_devices();
    const auto wanted = [&](JovuDeviceAddress address) { return contains(chosen, address); };
    std::string reasons;
    std::string hint;
    for (const auto& [address, obstacle] : unopened_controllers()) {
        if (wanted(address)) {
            reasons += (reasons.empty() ? "" : "; ") + ("cannot open " + device_name(address)) +
                       ": " + obstacle.reason;
            hint = hint.empty() ? obstacle.hint : hint;
        }
    }
    if (!reasons.empty()) {
        throw failure(reasons, hint);
    }
    if (const auto left_out = those_with(chosen, is_left_out); !left_out.empty()) {
        throw failure("not opened: " + describe(left_out) + ": the shell is for another device",
                      "start a shell for this one");
    }
    const std::vector<AttachedDevice> attached = attached_devices();
    for (const AttachedDevice& device : attached) {
        if (device.kind == AttachedDevice::Kind::dfu && wanted(device.address)) {
            throw failure("no device: " + device_name(device.address) + " is in DFU mode",
                          "'jovu update IMAGE' writes a firmware to it");
        }
    }
    const std::vector<JovuDeviceAddress> connected = client_->list_connected();
    if (attached.empty() && attached_controllers() > connected.size()) {
        throw failure("no device can be opened, although one is attached",
                      "another program holds it, or you have no permission: " + permission_hint());
    }
    if (options_.chooses_device()) {
        const std::string name = options_.device          ? to_string(*options_.device)
                                 : !options_.port.empty() ? "port " + options_.port
                                                          : "serial number " + options_.serial;
        const std::string others = describe(controllers());
        throw failure("no such device: " + name,
                      others.empty() ? kWaitHint : "attached: " + others);
    }
    if (!connected.empty()) {  // Opened a moment ago.
        throw failure("no device is ready yet: " + to_string(connected), kWaitHint);
    }
    const bool others = !client_->list_attached().empty();
    throw failure(others ? "no device: the attached devices are of another kind"
                         : "no device: nothing is attached",
                  others ? "'jovu list' shows them" : kWaitHint);
}

/// Cancels the exchange with a device. A frame that has begun is written whole, which takes too
/// long when the device takes no data: then the device is closed.
void Session::cancel_on_signal(JovuDeviceAddress address, Stop reason,
                               const std::shared_future<void>& ended) noexcept {
    if (reason != Stop::signal) {
        return;
    }
    const auto limit = NotificationQueue::Clock::now() + kCancelLimit;
    // Repeated: the exchange may begin after the signal.
    do {
        client_->cancel_exchanges(address);
    } while (ended.wait_for(kCancelRepeat) != std::future_status::ready &&
             NotificationQueue::Clock::now() < limit);
    if (ended.wait_for(0s) != std::future_status::ready) {
        close(address);
    }
}

void Session::close(JovuDeviceAddress address) noexcept {
    has_closed_ = true;
    try {
        client_->close(address);
    } catch (const JovuException&) {
        // It is disconnected or closed, which ends the exchange as well.
    }
}

void Session::check_exchange(JovuDeviceAddress address, const std::string& name) const {
    const std::string reason = JovuTransport::last_send_error();
    if (reason.empty()) {
        return;
    }
    if (stop_.state() == Stop::signal) {
        throw Failure(ExitCode::interrupted, "interrupted: " + name +
                                                 " may or may not have been carried out by " +
                                                 device_name(address));
    }
    if (options_.timeout &&
        JovuTransport::last_send_error_code() == JovuError::response_timed_out) {
        throw Failure(ExitCode::exchange_failed,
                      name + " to " + device_name(address) + " failed: no response within " +
                          std::to_string(options_.timeout.value_or(0ms).count()) + " ms",
                      "--timeout gives it more time");
    }
    throw failure_at(address, name, JovuException(reason, JovuTransport::last_send_error_code()));
}

/// @return the Failure for an exchange with a device. A device that is not open may be attached.
Failure Session::failure_at(JovuDeviceAddress address, const std::string& name,
                            const JovuException& error) const {
    Failure failure = exchange_failure(name + " to " + device_name(address), error);
    if (error.code() != JovuError::disconnected) {
        return failure;
    }
    for (const AttachedDevice& device : attached_devices()) {
        if (device.address != address || device.kind != AttachedDevice::Kind::controller) {
            continue;
        }
        const NodeState node = look_at_node(device);
        if (!node.ours && (!node.driver.empty() || !node.holders.empty())) {
            const Obstacle obstacle = obstacle_at(node);
            return Failure(failure.code(), failure.what(),
                           "it is attached, but " + obstacle.reason + ": " + obstacle.hint);
        }
        return Failure(failure.code(), failure.what(), "it was unplugged meanwhile, or has reset");
    }
    return failure;
}

/// Drops reports that earlier programs requested: before the first request, waits until the device
/// sends none.
void Session::drop_stale_reports(JovuDeviceAddress address) {
    if (pending_reports_.emplace(address, 0).second) {
        const auto limit = NotificationQueue::Clock::now() + kMaxQuietWait;
        auto end = NotificationQueue::Clock::now() + kQuietTime;
        while (std::optional<Notification> notification =
                   notifications_.next(std::min(end, limit))) {
            check_connected(address, *notification);
            if (std::holds_alternative<StatusReport>(notification->what)) {
                end = NotificationQueue::Clock::now() + kQuietTime;
            }
        }
    }
    notifications_.drop_reports();
}

StatusReport Session::request_status(JovuDeviceAddress address,
                                     NotificationQueue::Clock::time_point deadline) {
    drop_stale_reports(address);
    if (options_.timeout) {
        deadline = std::min(deadline, NotificationQueue::Clock::now() + *options_.timeout);
    }
    unsigned& pending = pending_reports_[address];
    std::optional<StatusReport> latest;
    for (int attempt = 0; attempt < kReportAttempts; ++attempt) {
        send(address, "status request", [&] { client_->RequestStatus(address); });
        ++pending;
        auto end = std::min(NotificationQueue::Clock::now() + kReportRepeat, deadline);
        while (std::optional<Notification> notification = notifications_.next(end)) {
            check_connected(address, *notification);
            auto* report = std::get_if<StatusReport>(&notification->what);
            if (report == nullptr || notification->address != address) {
                continue;
            }
            latest = std::move(*report);
            if (--pending == 0) {
                return *latest;
            }
            // This may be the report of an earlier request. When no other follows, one was lost.
            end = NotificationQueue::Clock::now() + kFurtherReportLimit;
        }
        stop_.throw_if_stopped();
        if (latest) {
            pending = 0;
            return *latest;
        }
        if (NotificationQueue::Clock::now() >= deadline) {
            break;
        }
    }
    throw Failure(ExitCode::exchange_failed,
                  "status request to " + device_name(address) + " failed: timed out",
                  "after an interrupted push the device may wait for the rest of the job: wait "
                  "until it gives "
                  "up, or unplug it");
}

std::optional<Notification> Session::next_notification(
    NotificationQueue::Clock::time_point deadline) {
    for (;;) {
        const auto now = NotificationQueue::Clock::now();
        if (std::optional<Notification> notification =
                notifications_.next(std::min(deadline, now + kConnectionCheck))) {
            return notification;
        }
        if (stop_.state() != Stop::none || now >= deadline) {
            return std::nullopt;
        }
        if (has_ended()) {
            throw Failure(ExitCode::exchange_failed,
                          "the USB connection has ended, for the reason given above",
                          "this can happen when memory has run out; run the command again");
        }
    }
}

void Session::wait_until(JovuDeviceAddress address, NotificationQueue::Clock::time_point time) {
    while (const std::optional<Notification> notification = next_notification(time)) {
        check_connected(address, *notification);
    }
    stop_.throw_if_stopped();
}

void Session::check_connected(JovuDeviceAddress address, const Notification& notification) const {
    if (std::holds_alternative<Disconnected>(notification.what) &&
        notification.address == address) {
        throw Failure(ExitCode::exchange_failed, "device has disconnected: " + device_name(address),
                      "it was unplugged, or has reset");
    }
}

Failure exchange_failure(const std::string& what, const JovuException& error) {
    const auto hint = [&]() -> const char* {
        switch (error.code()) {
            case JovuError::response_timed_out:
                return "the device is attached but does not respond: unplug it and plug it in "
                       "again";
            case JovuError::no_response:
                return "it was unplugged meanwhile, or has reset";
            case JovuError::disconnected:
                return "it was unplugged";
            case JovuError::transfer_failed:
            case JovuError::busy:
                return "it was unplugged, or the bus is disturbed: check the cable";
            case JovuError::send_timed_out:
                return "the device takes no data: unplug it and plug it in again";
            case JovuError::stalled:
                return "the device has stalled: unplug it and plug it in again";
            default:
                return "";
        }
    };
    return Failure(ExitCode::exchange_failed, what + " failed: " + without_period(error.what()),
                   hint());
}

Identity read_identity(Session& session, JovuDeviceAddress address) {
    Identity identity;
    identity.version = to_string(session.exchange(
        address, "version request", [&] { return session.client().bio_get_version(address); }));
    identity.serial = read_serial(session, address);
    return identity;
}

std::string read_serial(Session& session, JovuDeviceAddress address) {
    return to_string(session.exchange(address, "serial number request",
                                      [&] { return session.client().bio_get_serial(address); }));
}

}  // namespace jovu_cli
