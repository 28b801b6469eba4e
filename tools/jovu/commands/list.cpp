// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu list`: the devices, opened or not.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
#include "jovu/devices.h"
#include "session/attached_devices.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

struct ListOptions {
    bool attached = false;
};

/// Devices that respond within this time are shown in the order of their addresses; the others as
/// they respond.
constexpr std::chrono::milliseconds kPromptTime{500};
constexpr std::chrono::milliseconds kPollTime{20};

/// The identity of one device, or the failure to read it.
struct Entry {
    JovuDeviceAddress address;
    std::optional<Identity> identity;
    std::optional<Failure> failure;
};

Entry read_entry(Session& session, JovuDeviceAddress address) {
    try {
        return {address, read_identity(session, address), std::nullopt};
    } catch (const Failure& failure) {
        return {address, std::nullopt, failure};
    }
}

/// Reads identities in parallel: a device that does not respond takes its whole time limit.
class Identities {
public:
    Identities(Session& session, const std::vector<JovuDeviceAddress>& devices) {
        for (const JovuDeviceAddress address : devices) {
            pending_.push_back(std::async(
                std::launch::async, [&session, address] { return read_entry(session, address); }));
        }
    }

    /// @return the identities that are there within a time, in the order of the devices.
    std::vector<Entry> take(std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        std::vector<Entry> entries;
        for (auto next = pending_.begin(); next != pending_.end();) {
            if (next->wait_until(end) == std::future_status::ready) {
                entries.push_back(next->get());
                next = pending_.erase(next);
            } else {
                ++next;
            }
        }
        return entries;
    }

    bool all_taken() const { return pending_.empty(); }

private:
    std::list<std::future<Entry>> pending_;
};

/// An attached device that this program does not have open.
struct Unopened {
    JovuDeviceInfo device;
    std::string reason;
    std::string hint;
};

/// @return why a device is not open, for one whose node gives no better reason.
Obstacle obstacle_of(const JovuDeviceInfo& device, bool in_dfu_mode) {
    if (in_dfu_mode) {
        return {"in DFU mode", "'jovu update IMAGE' writes a firmware to it"};
    }
    switch (device.state) {
        case JovuDeviceState::other_kind:
            return {"another kind of device, type " + std::to_string(device.type), ""};
        case JovuDeviceState::not_permitted:
            return {"no permission", permission_hint()};
        case JovuDeviceState::in_use:
            return {"in use", "only one program at a time can use a device"};
        case JovuDeviceState::vanished:
            return {"unplugged while it was opened", ""};
        case JovuDeviceState::open:
        case JovuDeviceState::waiting:
            return {"not ready yet", "--wait-device SECONDS waits for it"};
        case JovuDeviceState::closed:
        case JovuDeviceState::left_out:
        case JovuDeviceState::failed:
            break;
    }
    return {jovu_state_name(device.state), ""};
}

/// @param opened the devices that are listed as open.
/// @return the others, but for those that the user left out.
std::vector<Unopened> unopened_devices(const Session& session,
                                       const std::vector<JovuDeviceInfo>& attached,
                                       const std::vector<JovuDeviceAddress>& opened) {
    std::vector<JovuDeviceAddress> in_dfu_mode;
    for (const AttachedDevice& device : attached_devices()) {
        if (device.kind == AttachedDevice::Kind::dfu) {
            in_dfu_mode.push_back(device.address);
        }
    }
    const std::vector<UnopenedController> obstacles = session.unopened_controllers();
    const auto contains = [](const auto& list, JovuDeviceAddress address) {
        return std::find(list.begin(), list.end(), address) != list.end();
    };
    std::vector<Unopened> unopened;
    for (const JovuDeviceInfo& device : attached) {
        if (device.state == JovuDeviceState::left_out || contains(opened, device.address)) {
            continue;
        }
        const auto known = std::find_if(
            obstacles.begin(), obstacles.end(),
            [&](const UnopenedController& other) { return other.address == device.address; });
        const Obstacle obstacle = known != obstacles.end()
                                      ? known->obstacle
                                      : obstacle_of(device, contains(in_dfu_mode, device.address));
        unopened.push_back({device, obstacle.reason, obstacle.hint});
    }
    return unopened;
}

/// What the system shows of the listed devices; the addresses that have gone meanwhile are bare.
class Places {
public:
    explicit Places(const std::vector<JovuDeviceInfo>& attached) : attached_(attached) {}

    JovuDeviceInfo of(JovuDeviceAddress address) const {
        const auto found =
            std::find_if(attached_.begin(), attached_.end(),
                         [address](const JovuDeviceInfo& info) { return info.address == address; });
        JovuDeviceInfo bare;
        bare.address = address;
        return found != attached_.end() ? *found : bare;
    }

private:
    const std::vector<JovuDeviceInfo>& attached_;
};

/// @return the members that every device has.
Json place_json(const JovuDeviceInfo& device) {
    return {
        {"device", to_string(device.address)}, {"serial", device.serial}, {"port", device.port}};
}

Json list_json(const std::vector<Entry>& entries, const Places& places,
               const std::vector<Unopened>& rest) {
    Json devices = Json::array();
    for (const Entry& entry : entries) {
        Json device = place_json(places.of(entry.address));
        if (entry.identity) {
            device["serial"] = entry.identity->serial;
            device["version"] = entry.identity->version;
        } else {
            device["error"] = entry.failure->what();
        }
        devices.push_back(std::move(device));
    }
    Json others = Json::array();
    for (const auto& [info, reason, hint] : rest) {
        Json device = place_json(info);
        device["type"] = info.type;
        device["state"] = jovu_state_name(info.state);
        device["reason"] = reason;
        device["hint"] = hint;
        others.push_back(std::move(device));
    }
    return {{"devices", std::move(devices)}, {"not_opened", std::move(others)}};
}

/// @return the beginning of a device's line.
std::string place_string(const JovuDeviceInfo& device, const std::string& serial) {
    return to_string(device.address) + (serial.empty() ? "" : "  serial " + printable(serial)) +
           (device.port.empty() ? "" : "  port " + device.port);
}

void print(Output& out, const std::vector<Entry>& entries, const Places& places) {
    for (const Entry& entry : entries) {
        const JovuDeviceInfo device = places.of(entry.address);
        out.line(entry.identity ? place_string(device, entry.identity->serial) + "  version " +
                                      printable(entry.identity->version)
                                : place_string(device, device.serial) + "  no response");
    }
}

void print(Output& out, const std::vector<Unopened>& rest) {
    for (const auto& [device, reason, hint] : rest) {
        out.line(place_string(device, device.serial) + "  not open: " + printable(reason) +
                 (hint.empty() ? "" : " (" + hint + ")"));
    }
}

const char* kind_name(AttachedDevice::Kind kind) {
    switch (kind) {
        case AttachedDevice::Kind::controller:
            return "controller";
        case AttachedDevice::Kind::dfu:
            return "dfu";
        case AttachedDevice::Kind::other:
            return "other";
    }
    return "";
}

/// Lists what the system shows, and opens nothing: other programs are not disturbed.
void list_attached(const Context& context) {
    const JovuDeviceFilter filter = context.options.filter();
    Json attached = Json::array();
    for (const AttachedDevice& device : attached_devices()) {
        JovuDeviceInfo info;
        info.address = device.address;
        info.port = device.system_name;
        info.serial = device.serial;
        if (!filter.matches(info)) {
            continue;
        }
        Json object = place_json(info);
        object["kind"] = kind_name(device.kind);
        attached.push_back(std::move(object));
        if (!context.out.json()) {
            context.out.line(place_string(info, info.serial) + "  " + kind_name(device.kind));
        }
    }
    const bool none = attached.empty();
    if (context.out.json()) {
        context.out.object({{"attached", std::move(attached)}});
    }
    if (none) {
        throw Failure(ExitCode::no_device, context.options.chooses_device()
                                               ? "no device: the chosen one is not attached"
                                               : "no device: nothing is attached");
    }
}

void run_list(const Context& context, const ListOptions& options) {
    if (const auto fleet = fleet_context(context)) {
        if (options.attached) {
            throw Failure(ExitCode::usage, "--attached is not available with --fleet");
        }
        list_fleet(*fleet);
        return;
    }
    if (options.attached) {
        list_attached(context);
        return;
    }
    const SessionLease lease(context, Interest{});
    Session& session = lease.session();
    const std::vector<JovuDeviceAddress> devices = session.find_devices();
    Output& out = context.out;
    Identities identities(session, devices);
    std::vector<Entry> entries = identities.take(kPromptTime);
    const std::vector<JovuDeviceInfo> attached = Client::list_devices();
    const Places places(attached);
    const std::vector<Unopened> rest = unopened_devices(session, attached, devices);
    if (!out.json()) {
        print(out, entries, places);
        print(out, rest);
    }
    while (!identities.all_taken()) {
        const std::vector<Entry> late = identities.take(kPollTime);
        if (!out.json()) {
            print(out, late, places);
        }
        entries.insert(entries.end(), late.begin(), late.end());
    }
    context.stop.throw_if_stopped();
    if (out.json()) {
        std::sort(entries.begin(), entries.end(), [](const Entry& one, const Entry& other) {
            return comes_before(one.address, other.address);
        });
        out.object(list_json(entries, places, rest));
    }
    if (devices.empty()) {
        session.throw_no_device();
    }
    for (const Entry& entry : entries) {
        if (entry.failure) {
            throw Failure(*entry.failure);
        }
    }
}

Run define_list(CLI::App& app) {
    const auto options = std::make_shared<ListOptions>();
    app.add_flag("--attached", options->attached,
                 "Show what the system knows of the devices; open none");
    return [options](const Context& context) { run_list(context, *options); };
}

}  // namespace

const Command kListCommand{"list", "List the devices", define_list, FleetUse::works};

}  // namespace jovu_cli
