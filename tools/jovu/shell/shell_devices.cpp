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

/// How long the report of a disconnect may take.
constexpr std::chrono::milliseconds kReportDelay{1000};

bool is_usable(Session& session, JovuDeviceAddress address) {
    const std::vector<JovuDeviceAddress> usable = session.usable_devices();
    return std::find(usable.begin(), usable.end(), address) != usable.end();
}

/// @return empty when the device has no serial number or does not answer.
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

std::string ShellDevices::text(const Device& device) {
    if (!device.asked) {
        return to_string(device.address);
    }
    return to_string(device.address) +
           (device.serial.empty() ? ", serial number unknown" : ", serial " + device.serial);
}

/// Asks a device for its serial number.
/// @throws Failure as Session::exchange().
ShellDevices::Device ShellDevices::ask(Session& session, JovuDeviceAddress address) {
    for (;;) {
        const std::uint64_t changes = session.notifications().changes(address);
        Device device{address, changes, read_serial(session, address)};
        if (session.notifications().changes(address) == changes) {
            return device;
        }
        // The answer may be from the device that was there before.
    }
}

/// As ask(), for a device that need not answer.
/// @return nothing when it has gone, or another one has come.
/// @throws Failure interrupted.
std::optional<ShellDevices::Device> ShellDevices::ask_whether(Session& session,
                                                              JovuDeviceAddress address) {
    const std::uint64_t changes = session.notifications().changes(address);
    const std::string serial = try_read_serial(session, address);
    if (!serial.empty() && session.notifications().changes(address) == changes) {
        return Device{address, changes, serial};
    }
    // An exchange with a device that goes ends before the disconnect is reported.
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

bool ShellDevices::is_asked(Session& session, JovuDeviceAddress address) const {
    return is_known(session, address) && present_.at(address).asked;
}

/// Whether a device could be the one that a line without an address is for. While that one is
/// connected, no other is: one that does not answer must not hold up its lines.
bool ShellDevices::may_be_wanted(Session& session, JovuDeviceAddress address) const {
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

/// Notes which device is at an address.
void ShellDevices::note(const Device& device) {
    present_.insert_or_assign(device.address, device);
    Device& owner = owners_.try_emplace(device.address, device).first->second;
    if (!owner.asked && owner.changes == device.changes) {
        owner = device;
    }
}

/// Says so when a device was not known to be where it is.
void ShellDevices::announce(const Device& device) {
    const auto found = present_.find(device.address);
    if (found != present_.end() && same(found->second, device)) {
        if (found->second.changes != 0) {
            say_("connected again: " + text(device));
        }
        return;
    }
    const bool shown =
        found != present_.end() && !found->second.asked && found->second.changes == device.changes;
    if (found != present_.end() && !shown) {
        say_("disconnected: " + text(found->second));
    }
    std::string line = "connected: " + text(device);
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

/// @param all also those that another session knew, and that this one has had the time to open.
void ShellDevices::drop_disconnected(Session& session, bool all) {
    for (auto entry = present_.begin(); entry != present_.end();) {
        const Device& device = entry->second;
        if (is_usable(session, device.address) || (device.changes == 0 && !all)) {
            ++entry;
        } else {
            say_("disconnected: " + text(device));
            entry = present_.erase(entry);
        }
    }
}

void ShellDevices::update(Session& session) {
    drop_disconnected(session, false);
    std::vector<JovuDeviceAddress> addresses = session.usable_devices();
    // First the places of the wanted device: when it is there, the others need not be asked.
    std::stable_partition(addresses.begin(), addresses.end(), [&](JovuDeviceAddress address) {
        return address == chosen_ ||
               std::any_of(accepted_.begin(), accepted_.end(),
                           [&](const Device& device) { return device.address == address; });
    });
    for (const JovuDeviceAddress address : addresses) {
        if (!may_be_wanted(session, address)) {
            if (!is_known(session, address)) {
                const Device device{address, session.notifications().changes(address), "", false};
                announce(device);
                note(device);
            }
        } else if (!is_asked(session, address)) {
            if (const std::optional<Device> device = ask_whether(session, address)) {
                announce(*device);
                note(*device);
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
            say_((chosen_ == address ? "chosen: " : "connected: ") + text(found->second));
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
    if (!is_asked(session, address)) {
        const std::optional<Device> device = ask_whether(session, address);
        if (!device) {
            return;
        }
        note(*device);
    }
    const Device device = present_.at(address);
    accepted_ = {device};
    owners_.insert_or_assign(address, device);
    say_("chosen: " + text(device));
}

void ShellDevices::clear_connections() {
    for (auto& [address, device] : present_) {
        device.changes = 0;
    }
    for (auto entry = owners_.begin(); entry != owners_.end();) {
        entry->second.changes = 0;
        entry = entry->second.asked ? std::next(entry) : owners_.erase(entry);
    }
    for (Device& device : accepted_) {
        device.changes = 0;
    }
}

void ShellDevices::check(Session& session, JovuDeviceAddress address, bool named) {
    drop_disconnected(session, true);
    if (!is_asked(session, address)) {
        const bool shown = is_known(session, address);
        const Device device = ask(session, address);
        if (!shown && !accepted_.empty()) {  // Otherwise it is the first one of all.
            announce(device);
        }
        note(device);
    }
    const Device& device = present_.at(address);
    const Devices wanted = named ? Devices{owners_.at(address)} : accepted_;
    const bool is_wanted = std::any_of(wanted.begin(), wanted.end(),
                                       [&](const Device& other) { return same(device, other); });
    if (!wanted.empty() && !is_wanted) {
        std::string names;
        for (const Device& other : wanted) {
            names += (names.empty() ? "" : " or ") + text(other);
        }
        throw Failure(ExitCode::no_device, "not sent to " + text(device) + ": lines go to " + names,
                      ".device " + to_string(address) + " sends the next ones there");
    }
    if (!named) {
        accepted_ = {device};
    }
}

}  // namespace jovu_cli
