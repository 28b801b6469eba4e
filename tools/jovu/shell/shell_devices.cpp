// SPDX-License-Identifier: Apache-2.0
#include "shell/shell_devices.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "cli/failure.h"
#include "cli/options.h"
#include "session/session.h"

namespace jovu_cli {
namespace {

/// How long the notification of a disconnect may take.
constexpr std::chrono::milliseconds kReportDelay{1000};

bool is_usable(Session& session, JovuDeviceAddress address) {
    const std::vector<JovuDeviceAddress> usable = session.usable_devices();
    return std::find(usable.begin(), usable.end(), address) != usable.end();
}

/// @return empty when the device has no serial number or does not respond.
/// @throws Failure interrupted.
std::string try_read_serial(Session& session, JovuDeviceAddress address) {
    try {
        return read_serial(session, address);
    } catch (const Failure& failure) {
        if (failure.code() != ExitCode::exchange_failed) {
            throw;
        }
        return {};
    }
}

}  // namespace

ShellDevices::ShellDevices(std::optional<JovuDeviceAddress> chosen,
                           std::function<void(const std::string& line)> say)
    : chosen_(chosen), say_(std::move(say)) {}

bool ShellDevices::same(const Device& one, const Device& other) {
    if (!one.serial.empty() || !other.serial.empty()) {
        return one.serial == other.serial;
    }
    return one.address == other.address && one.changes == other.changes && one.changes != 0;
}

std::string ShellDevices::describe(const Device& device) {
    if (!device.identified) {
        return to_string(device.address);
    }
    return to_string(device.address) +
           (device.serial.empty() ? ", serial number unknown" : ", serial " + device.serial);
}

/// Reads a device's serial number.
/// @throws Failure as Session::exchange().
ShellDevices::Device ShellDevices::identify(Session& session, JovuDeviceAddress address) {
    for (;;) {
        const std::uint64_t changes = session.notifications().changes(address);
        Device device{address, changes, read_serial(session, address)};
        if (session.notifications().changes(address) == changes) {
            return device;
        }
        // The response may be from the device that had the address before.
    }
}

/// As identify(), for a device that may not respond.
/// @return nothing when the device has disconnected or was replaced.
/// @throws Failure interrupted.
std::optional<ShellDevices::Device> ShellDevices::try_identify(Session& session,
                                                               JovuDeviceAddress address) {
    const std::uint64_t changes = session.notifications().changes(address);
    const std::string serial = try_read_serial(session, address);
    if (!serial.empty() && session.notifications().changes(address) == changes) {
        return Device{address, changes, serial};
    }
    // An exchange with a device that disconnects ends before the notification.
    for (const auto end = NotificationQueue::Clock::now() + kReportDelay;
         NotificationQueue::Clock::now() < end; std::this_thread::sleep_for(kReportDelay / 50)) {
        if (session.notifications().changes(address) != changes || !is_usable(session, address)) {
            return std::nullopt;
        }
        session.stop().throw_if_stopped();
    }
    return Device{address, changes, ""};
}

bool ShellDevices::is_known(Session& session, JovuDeviceAddress address) const {
    const auto found = present_.find(address);
    return found != present_.end() &&
           found->second.changes == session.notifications().changes(address);
}

bool ShellDevices::is_identified(Session& session, JovuDeviceAddress address) const {
    return is_known(session, address) && present_.at(address).identified;
}

/// Whether a line without an address may be sent to a device. While the accepted device is
/// connected, to no other: a device that does not respond must not delay the lines.
bool ShellDevices::may_be_accepted(Session& session, JovuDeviceAddress address) const {
    if (address == chosen_) {
        return true;
    }
    if (accepted_.empty()) {
        return !chosen_;
    }
    return std::any_of(accepted_.begin(), accepted_.end(), [&](const Device& device) {
        return device.address == address || !is_usable(session, device.address) ||
               !is_known(session, device.address) || !same(present_.at(device.address), device);
    });
}

/// Records the device at an address.
void ShellDevices::record(const Device& device) {
    present_.insert_or_assign(device.address, device);
    Device& owner = owners_.try_emplace(device.address, device).first->second;
    if (!owner.identified && owner.changes == device.changes) {
        owner = device;
    }
}

/// Reports a device that is new at its address.
void ShellDevices::report_connected(const Device& device) {
    const auto found = present_.find(device.address);
    if (found != present_.end() && same(found->second, device)) {
        if (found->second.changes != 0) {
            say_("connected again: " + describe(device));
        }
        return;
    }
    const bool shown = found != present_.end() && !found->second.identified &&
                       found->second.changes == device.changes;
    if (found != present_.end() && !shown) {
        say_("disconnected: " + describe(found->second));
    }
    std::string line = "connected: " + describe(device);
    const auto before = std::find_if(accepted_.begin(), accepted_.end(),
                                     [&](const Device& other) { return same(device, other); });
    if (before == accepted_.end()) {
        if (!accepted_.empty()) {
            line += ", another device: .device " + to_string(device.address) + " chooses it";
        }
    } else if (before->address != device.address) {
        const std::string where = to_string(before->address);
        if (present_.count(before->address) != 0) {
            line += ", which " + where + " has as well";
        } else {
            line += ", the device that was at " + where;
            chosen_ = chosen_ == before->address ? device.address : chosen_;
            *before = device;
        }
    }
    say_(line);
}

/// @param all include the devices of the session before, which this session had time to open.
void ShellDevices::drop_disconnected(Session& session, bool all) {
    for (auto entry = present_.begin(); entry != present_.end();) {
        const Device& device = entry->second;
        if (is_usable(session, device.address) || (device.changes == 0 && !all)) {
            ++entry;
        } else {
            say_("disconnected: " + describe(device));
            entry = present_.erase(entry);
        }
    }
}

void ShellDevices::update(Session& session) {
    drop_disconnected(session, false);
    std::vector<JovuDeviceAddress> addresses = session.usable_devices();
    // First the addresses of accepted devices: when one is connected, others need no
    // identification.
    std::stable_partition(addresses.begin(), addresses.end(), [&](JovuDeviceAddress address) {
        return address == chosen_ ||
               std::any_of(accepted_.begin(), accepted_.end(),
                           [&](const Device& device) { return device.address == address; });
    });
    for (const JovuDeviceAddress address : addresses) {
        if (!may_be_accepted(session, address)) {
            if (!is_known(session, address)) {
                const Device device{address, session.notifications().changes(address), "", false};
                report_connected(device);
                record(device);
            }
        } else if (!is_identified(session, address)) {
            if (const std::optional<Device> device = try_identify(session, address)) {
                report_connected(*device);
                record(*device);
            }
        }
    }
}

void ShellDevices::accept_all(Session& session) {
    update(session);
    for (const auto& [address, device] : present_) {
        if (!chosen_ || chosen_ == address) {
            accepted_.push_back(device);
        }
    }
}

void ShellDevices::list(Session& session) {
    update(session);
    for (const JovuDeviceAddress address : session.usable_devices()) {
        const auto found = present_.find(address);
        if (found != present_.end()) {
            say_((chosen_ == address ? "chosen: " : "connected: ") + describe(found->second));
        }
    }
    if (present_.empty()) {
        say_("no device is connected");
    }
}

void ShellDevices::choose(Session& session, JovuDeviceAddress address) {
    chosen_ = address;
    if (!is_usable(session, address)) {
        return;
    }
    if (!is_identified(session, address)) {
        const std::optional<Device> device = try_identify(session, address);
        if (!device) {
            return;
        }
        record(*device);
    }
    const Device device = present_.at(address);
    accepted_ = {device};
    owners_.insert_or_assign(address, device);
    say_("chosen: " + describe(device));
}

void ShellDevices::clear_connections() {
    for (auto& [address, device] : present_) {
        device.changes = 0;
    }
    for (auto entry = owners_.begin(); entry != owners_.end();) {
        entry->second.changes = 0;
        entry = entry->second.identified ? std::next(entry) : owners_.erase(entry);
    }
    for (Device& device : accepted_) {
        device.changes = 0;
    }
}

void ShellDevices::check(Session& session, JovuDeviceAddress address, bool named) {
    drop_disconnected(session, true);
    if (!is_identified(session, address)) {
        const bool shown = is_known(session, address);
        const Device device = identify(session, address);
        if (!shown && !accepted_.empty()) {  // Otherwise it is the first device of the shell.
            report_connected(device);
        }
        record(device);
    }
    const Device& device = present_.at(address);
    const Devices wanted = named ? Devices{owners_.at(address)} : accepted_;
    const bool is_wanted = std::any_of(wanted.begin(), wanted.end(),
                                       [&](const Device& other) { return same(device, other); });
    if (!wanted.empty() && !is_wanted) {
        std::string names;
        for (const Device& other : wanted) {
            names += (names.empty() ? "" : " or ") + describe(other);
        }
        throw Failure(ExitCode::no_device,
                      "not sent to " + describe(device) + ": lines go to " + names,
                      ".device " + to_string(address) + " sends the next ones there");
    }
    if (!named) {
        accepted_ = {device};
    }
}

}  // namespace jovu_cli
