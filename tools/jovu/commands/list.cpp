// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu list`: the devices, opened or not.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/failure.h"
#include "commands/command.h"
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

/// A kind of device of which not all are open. The bus listing has ports and the library has
/// addresses, so the ports include those of open devices of the kind.
struct NotOpened {
    std::int32_t type;
    std::size_t count;
    std::vector<unsigned> ports;
    std::vector<std::string> reasons;  ///< Of controllers: "1:2: no permission on ...".
};

std::vector<std::string> reasons_of(const Session& session) {
    const std::vector<UnopenedController> unopened = session.unopened_controllers();
    std::vector<std::string> reasons;
    reasons.reserve(unopened.size());
    for (const auto& [address, obstacle] : unopened) {
        reasons.push_back(to_string(address) + ": " + obstacle.reason +
                          (obstacle.hint.empty() ? "" : " (" + obstacle.hint + ")"));
    }
    return reasons;
}

std::vector<NotOpened> not_opened(Session& session) {
    std::map<std::int32_t, std::vector<unsigned>> ports;
    for (const JovuUsbDevice& device : session.client().list_attached()) {
        ports[device.type].push_back(device.port);
    }
    const std::size_t opened = session.client().list_connected().size();
    std::vector<NotOpened> result;
    for (const auto& [type, at] : ports) {
        const bool opens = type == kControllerType;
        const std::size_t open_here = opens ? opened : 0;
        if (at.size() > open_here) {
            result.push_back({type, at.size() - open_here, at,
                              opens ? reasons_of(session) : std::vector<std::string>()});
        }
    }
    return result;
}

Json list_json(const std::vector<Entry>& entries, const std::vector<NotOpened>& rest) {
    Json devices = Json::array();
    for (const Entry& entry : entries) {
        Json device = {{"device", to_string(entry.address)}};
        if (entry.identity) {
            device["serial"] = entry.identity->serial;
            device["version"] = entry.identity->version;
        } else {
            device["error"] = entry.failure->what();
        }
        devices.push_back(std::move(device));
    }
    Json others = Json::array();
    for (const NotOpened& kind : rest) {
        others.push_back({{"type", kind.type},
                          {"count", kind.count},
                          {"ports", kind.ports},
                          {"reasons", kind.reasons}});
    }
    return {{"devices", std::move(devices)}, {"not_opened", std::move(others)}};
}

std::string not_opened_line(const NotOpened& kind) {
    std::string ports;
    for (const unsigned port : kind.ports) {
        ports += (ports.empty() ? "" : ", ") + std::to_string(port);
    }
    std::string line = std::to_string(kind.count) + " attached of type " +
                       std::to_string(kind.type) + ", not opened (";
    if (kind.count < kind.ports.size()) {
        line += "among ";
    }
    line += (kind.ports.size() == 1 ? "port " : "ports ") + ports + ")";
    return line;
}

void print(Output& out, const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
        const std::string address = to_string(entry.address);
        if (entry.identity) {
            out.line(address + "  serial " + printable(entry.identity->serial) + "  version " +
                     printable(entry.identity->version));
        } else {
            out.line(address + "  no response");
        }
    }
}

/// @param any_open whether a device is open: without one, the error has the reasons.
void print(Output& out, const std::vector<NotOpened>& rest, bool any_open) {
    for (const NotOpened& kind : rest) {
        out.line(not_opened_line(kind));
        for (const std::string& reason : kind.reasons) {
            if (any_open) {
                out.line("  " + printable(reason));
            }
        }
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
        const std::string address = to_string(device.address);
        attached.push_back({{"device", address},
                            {"kind", kind_name(device.kind)},
                            {"port", device.system_name},
                            {"serial", device.serial}});
        if (!context.out.json()) {
            context.out.line(address + "  " + kind_name(device.kind) + "  port " +
                             printable(device.system_name) +
                             (device.serial.empty() ? "" : "  serial " + printable(device.serial)));
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
    const std::vector<NotOpened> rest = not_opened(session);
    if (!out.json()) {
        print(out, entries);
        print(out, rest, !devices.empty());
    }
    while (!identities.all_taken()) {
        const std::vector<Entry> late = identities.take(kPollTime);
        if (!out.json()) {
            print(out, late);
        }
        entries.insert(entries.end(), late.begin(), late.end());
    }
    context.stop.throw_if_stopped();
    if (out.json()) {
        std::sort(entries.begin(), entries.end(), [](const Entry& one, const Entry& other) {
            return comes_before(one.address, other.address);
        });
        out.object(list_json(entries, rest));
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

const Command kListCommand{"list", "List the devices", define_list};

}  // namespace jovu_cli
