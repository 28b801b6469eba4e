// SPDX-License-Identifier: Apache-2.0
#include "update/dfu_mode.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <optional>

#include "cli/failure.h"
#include "session/attached_devices.h"

namespace jovu_cli {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kChangePoll = 300ms;
/// How long to wait for a device with the controller's own serial number.
constexpr auto kOwnSerialLimit = 2s;
/// How long a device must be the only candidate: a hostile device may connect before the right one.
constexpr auto kSettleTime = 1s;

/// Whether a device was listed before, even with another number: a hostile device in DFU mode can
/// reconnect at its port with a new number and serial number.
bool was_listed(const std::vector<ListedDevice>& before, const ListedDevice& wanted) {
    return std::any_of(before.begin(), before.end(), [&](const ListedDevice& device) {
        return wanted.path.empty() ? same_location(device, wanted) : device.path == wanted.path;
    });
}

/// Puts the controller into DFU mode.
/// @return why the exchange failed; empty for success.
std::string send_enter_dfu_mode(Session& session, JovuDeviceAddress address) {
    try {
        session.exchange(address, "Enter_dfu_mode", [&] {
            session.client().Enter_dfu_mode(address);
            return 0;
        });
    } catch (const Failure& failure) {
        if (failure.code() != ExitCode::exchange_failed) {
            throw;
        }
        return failure.what();  // It may have disconnected before its response.
    }
    return {};
}

/// @return the devices that may be the controller.
/// @param before the devices listed before the change.
/// @param any_serial whether a device with another serial number may match.
std::vector<ListedDevice> candidates(const std::vector<ListedDevice>& listed,
                                     const std::vector<ListedDevice>& before,
                                     const std::string& serial, bool any_serial) {
    std::vector<ListedDevice> with_serial;
    std::vector<ListedDevice> others;
    for (const ListedDevice& device : listed) {
        if (is_controller(device) && !was_listed(before, device)) {
            (device.id.serial == serial ? with_serial : others).push_back(device);
        }
    }
    return with_serial.empty() && any_serial ? others : with_serial;
}

}  // namespace

std::string hexadecimal(std::uint16_t id) {
    std::array<char, 5> digits{};
    std::snprintf(digits.data(), digits.size(), "%04x", unsigned{id});
    return digits.data();
}

bool is_controller(const ListedDevice& device) {
    return device.id.vendor_id == hexadecimal(kControllerVendor);
}

std::string dfu_device_name(const ListedDevice& device) {
    return "in DFU mode " + device.id.serial + " (" + device.kind() + " at " + device.location() +
           ")";
}

void check_serial(const ListedDevice& device) {
    if (!is_word(device.id.serial)) {
        throw Failure(ExitCode::no_device, "cannot choose the device " + dfu_device_name(device) +
                                               ": its serial number must be alphanumeric");
    }
}

DfuListing unambiguous_listing(DfuTool& tool) {
    DfuListing listing = tool.list();
    if (!listing.refused.empty()) {
        throw Failure(ExitCode::several_devices,
                      "cannot tell the devices in DFU mode apart: the names or the serial number "
                      "of one are ambiguous: " +
                          listing.refused.front(),
                      "unplug that device");
    }
    return listing;
}

void throw_several(const std::vector<JovuDeviceAddress>& controllers,
                   const std::vector<ListedDevice>& devices) {
    std::string list = to_string(controllers);
    for (const ListedDevice& device : devices) {
        list += (list.empty() ? "" : ", ") + dfu_device_name(device);
    }
    throw Failure(ExitCode::several_devices, "several devices: " + list,
                  "choose one with -d BUS:ADDR or --serial SERIAL, or unplug the others");
}

ListedDevice enter_dfu_mode(Session& session, DfuTool& tool, JovuDeviceAddress address,
                            const Identity& identity) {
    const std::vector<ListedDevice> before = unambiguous_listing(tool).devices;
    for (const ListedDevice& device : before) {
        if (device.id.serial == identity.serial) {
            throw Failure(ExitCode::several_devices,
                          "two devices claim one serial number: " + to_string(address) + ", and " +
                              dfu_device_name(device),
                          "unplug the one that is not to be updated");
        }
    }
    const std::string trouble = send_enter_dfu_mode(session, address);
    const auto begin = Clock::now();
    auto since = begin;
    std::optional<ListedDevice> only;
    std::string diagnostics;
    while (Clock::now() < begin + kChangeLimit) {
        const DfuListing listing = unambiguous_listing(tool);
        diagnostics = listing.diagnostics;
        // A controller that is still connected is not in DFU mode.
        if (!session.is_connected(address)) {
            const bool any_serial = Clock::now() > begin + kOwnSerialLimit;
            const std::vector<ListedDevice> found =
                candidates(listing.devices, before, identity.serial, any_serial);
            if (found.size() > 1) {
                throw_several({}, found);
            }
            if (found.empty() || !only || !same_location(*only, found.front())) {
                only = found.empty() ? std::nullopt : std::optional(found.front());
                since = Clock::now();
            } else if (Clock::now() >= since + kSettleTime) {
                check_serial(*only);
                return *only;
            }
        }
        pause_in_change(session);
    }
    if (const auto node = refused_node(diagnostics)) {
        throw Failure(ExitCode::no_device, "no permission on " + *node, permission_hint());
    }
    throw Failure(ExitCode::exchange_failed,
                  to_string(address) + " did not appear in DFU mode" +
                      (trouble.empty() ? "" : ": " + trouble) +
                      (diagnostics.empty() ? "" : "; dfu-util says: " + diagnostics));
}

void pause_in_change(Session& session) {
    const auto until = Clock::now() + kChangePoll;
    while (session.notifications().next(until)) {
    }
    if (session.stop().state() == Stop::signal) {
        throw Failure(ExitCode::interrupted,
                      "interrupted: the device is in DFU mode or is changing its mode",
                      "'jovu list' and 'jovu dfu' show its mode");
    }
    session.stop().throw_if_stopped();
}

}  // namespace jovu_cli
