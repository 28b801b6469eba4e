// SPDX-License-Identifier: Apache-2.0
#include "jovu/event_interface.h"

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

#include "events/event_catalogue.h"
#include "events/firmware_event.h"

namespace {

/// How many unknown event names are remembered. A device that makes up names without end must not
/// fill the memory.
constexpr std::size_t kMaxUnknownNames = 64;

}  // namespace

struct JovuEventInterface::Registry {
    Registry(JovuEventInterface& owner, JovuTransport& transport) {
        std::apply([&](const auto&... row) { (add(owner, transport, row), ...); },
                   jovu::event_catalogue);
    }

    template <class Row>
    void add(JovuEventInterface& owner, JovuTransport& transport, const Row& row) {
        using Argument = typename Row::Argument;
        auto handler = [&owner](JovuDeviceAddress address, Argument argument) {
            (owner.*Row::handler)(address, std::move(argument));
        };
        events.push_back(std::make_unique<JovuFirmwareEvent<Argument>>(
            transport, std::move(handler), std::string(row.name), row.idx));
        by_name.emplace(row.name, events.back().get());
    }

    std::vector<std::unique_ptr<JovuEvent>> events;

    /// Null for an unknown name that has been received. Touched only on the thread that handles USB
    /// events, one at a time.
    std::map<std::string, JovuEvent*> by_name;
};

JovuEventInterface::JovuEventInterface(JovuTransport& transport)
    : registry_(std::make_unique<Registry>(*this, transport)) {}

JovuEventInterface::~JovuEventInterface() = default;

void JovuEventInterface::debug_event(JovuDeviceAddress /*address*/,
                                     std::shared_ptr<char> /*text*/) {}

void JovuEventInterface::servo_dc_trace_event(JovuDeviceAddress /*address*/,
                                              servo_trace_msg /*sample*/) {}

JovuEvent* JovuEventInterface::get_firmware_event(std::string name) {
    auto& by_name = registry_->by_name;
    if (by_name.size() >= registry_->events.size() + kMaxUnknownNames) {
        const auto found = by_name.find(name);
        return found == by_name.end() ? nullptr : found->second;
    }
    return by_name[std::move(name)];
}
