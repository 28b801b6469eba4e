#include "jovu/event_interface.h"

#include <map>
#include <utility>

#include "events/event_names.h"
#include "events/firmware_event.h"

struct JovuEventInterface::Registry {
    Registry(JovuEventInterface& owner, JovuTransport& transport)
        : debug(
              transport,
              [&owner](JovuDeviceAddress address, std::shared_ptr<char> text) {
                  owner.debug_event(address, std::move(text));
              },
              "debug_event", 0),
          servo_dc_trace(
              transport,
              [&owner](JovuDeviceAddress address, servo_trace_msg sample) {
                  owner.servo_dc_trace_event(address, sample);
              },
              "servo_dc_trace_event", 1),
          events{{debug.name(), &debug}, {servo_dc_trace.name(), &servo_dc_trace}},
          known(events.size()) {}

    JovuFirmwareEvent<std::shared_ptr<char>> debug;
    JovuFirmwareEvent<servo_trace_msg> servo_dc_trace;

    /// By name; a null entry is a name that was asked for in vain. Touched only on the thread that
    /// handles USB events, one at a time.
    std::map<std::string, JovuEvent*> events;
    const std::size_t known;
};

JovuEventInterface::JovuEventInterface(JovuTransport& transport)
    : registry_(std::make_unique<Registry>(*this, transport)) {}

JovuEventInterface::~JovuEventInterface() = default;

void JovuEventInterface::debug_event(JovuDeviceAddress /*address*/,
                                     std::shared_ptr<char> /*text*/) {}

void JovuEventInterface::servo_dc_trace_event(JovuDeviceAddress /*address*/,
                                              servo_trace_msg /*sample*/) {}

JovuEvent* JovuEventInterface::get_firmware_event(std::string name) {
    auto& events = registry_->events;
    if (events.size() >= registry_->known + jovu::kMaxUnknownNames) {
        const auto found = events.find(name);
        return found == events.end() ? nullptr : found->second;
    }
    return events[std::move(name)];
}
