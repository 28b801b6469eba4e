// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <cstdio>
#include <limits>

#include "tool/control_commands.h"

namespace jovusim {

namespace {

constexpr Millis kLongestDelay = Millis{3600} * 1000;
constexpr std::uint64_t kMostFlood = 100'000'000;
constexpr std::uint64_t kMostGarbage = 1ULL << 32U;

constexpr std::uint64_t kMostBlocks = 1'000'000;

/// Deepest nesting that fits into a frame.
constexpr std::uint32_t kDeepest = 32000;

struct Target {
    Bus& bus;
    BusDevice& device;

    void on_bus(const std::function<void(FaultTable&)>& work) const { device.with_faults(work); }
    /// @throws BadRequest when the fault cannot happen on this bus
    void require(BusFault fault, const char* reason) const {
        if (!bus.can_inject(fault)) throw BadRequest(reason);
    }
    void on_firmware(const std::function<void(Controller&)>& work) const {
        device.with_controller([&work](Controller& controller, Millis) { work(controller); });
    }
    void on_responses(const std::function<void(ResponseFaults&)>& work) const {
        on_firmware([&work](Controller& controller) { work(controller.response_faults()); });
    }

    /// An endpoint of this device.
    std::uint8_t endpoint(RequestReader& reader) const {
        const std::uint8_t address = reader.endpoint();
        for (const InterfaceInfo& interface : device.identity().interfaces) {
            for (const EndpointInfo& endpoint : interface.endpoints) {
                if (endpoint.address == address) return address;
            }
        }
        std::array<char, 3> hex{};
        std::snprintf(hex.data(), hex.size(), "%02x", unsigned{address});
        throw BadRequest(std::string("EP \"") + hex.data() + "\" is not an endpoint of the device");
    }
};

struct Repetition {
    std::uint32_t count;
    std::uint32_t skip;
};

Repetition repetition(RequestReader& reader) {
    const std::uint32_t count = reader.count(1);
    return {count, reader.optional_number("SKIP", 0)};
}

void add(const Target& target, BusFault fault, std::uint8_t endpoint, int error,
         RequestReader& reader) {
    const Repetition times = repetition(reader);
    reader.expect_end();
    target.on_bus(
        [&](FaultTable& faults) { faults.add(fault, endpoint, error, times.count, times.skip); });
}

void claim(const Target& target, RequestReader& reader) {
    target.require(BusFault::claim, "not on this bus: its kernel decides on claims");
    const int error = reader.error_name();
    add(target, BusFault::claim, 0, error, reader);
}

void submit(const Target& target, RequestReader& reader) {
    target.require(BusFault::submit,
                   "not on this bus: its kernel takes every transfer; use the fault status");
    const std::uint8_t endpoint = target.endpoint(reader);
    const int error = reader.error_name();
    add(target, BusFault::submit, endpoint, error, reader);
}

void status(const Target& target, RequestReader& reader) {
    const std::uint8_t endpoint = target.endpoint(reader);
    const int error = reader.error_name();
    add(target, BusFault::status, endpoint, error, reader);
}

void never(const Target& target, RequestReader& reader) {
    const std::uint8_t endpoint = target.endpoint(reader);
    add(target, BusFault::never, endpoint, 0, reader);
}

void open(const Target& target, RequestReader& reader) {
    reader.expect_end();
    target.bus.block_open(target.device.name(), true);
}

void silent(const Target& target, RequestReader& reader) {
    const std::uint32_t count = reader.count(1);
    reader.expect_end();
    target.on_responses([count](ResponseFaults& faults) { faults.silent.set(count); });
}

void drop(const Target& target, RequestReader& reader) {
    const std::uint32_t count = reader.count(1);
    reader.expect_end();
    target.on_responses([count](ResponseFaults& faults) { faults.drop.set(count); });
}

void delay(const Target& target, RequestReader& reader) {
    const auto delay = static_cast<Millis>(reader.number("MS", 0, kLongestDelay));
    reader.expect_end();
    target.on_responses([delay](ResponseFaults& faults) { faults.delay = delay; });
}

void corrupt(const Target& target, RequestReader& reader) {
    const std::string name = reader.next("what to corrupt");
    const auto kind = corruption_from_name(name);
    if (!kind)
        throw BadRequest("\"" + name +
                         "\" is not one of check, terminator, json, attrs, id, truncate");
    const std::uint32_t count = reader.count(1);
    reader.expect_end();
    target.on_responses([&](ResponseFaults& faults) {
        faults.corrupt[static_cast<std::size_t>(*kind)].set(count);
    });
}

void split(const Target& target, RequestReader& reader) {
    const auto size = static_cast<std::size_t>(reader.number("N", 1, kMaxPacket));
    reader.expect_end();
    target.on_responses([size](ResponseFaults& faults) { faults.packet_size = size; });
}

void deep(const Target& target, RequestReader& reader) {
    const auto depth = static_cast<std::uint32_t>(reader.number("N", 1, kDeepest));
    reader.expect_end();
    target.on_responses([depth](ResponseFaults& faults) { faults.deep = depth; });
}

void flood(const Target& target, RequestReader& reader) {
    const Channel channel = reader.channel();
    const std::uint64_t count = reader.number("N", 1, kMostFlood);
    reader.expect_end();
    target.on_firmware([&](Controller& controller) { controller.flood(channel, count); });
}

void garbage(const Target& target, RequestReader& reader) {
    const Channel channel = reader.channel();
    const std::uint64_t bytes = reader.number("N", 1, kMostGarbage);
    reader.expect_end();
    target.on_firmware([&](Controller& controller) { controller.send_garbage(channel, bytes); });
}

void unplug_at(const Target& target, RequestReader& reader) {
    const std::uint8_t endpoint = target.endpoint(reader);
    if ((endpoint & 0x80U) != 0) throw BadRequest("EP must be an OUT endpoint");
    const std::uint64_t bytes = reader.number("N", 0, std::numeric_limits<std::uint32_t>::max());
    reader.expect_end();
    target.on_bus([&](FaultTable& faults) { faults.unplug_after(endpoint, bytes); });
}

void dfu(const Target& target, RequestReader& reader) {
    const std::string word = reader.next("what goes wrong");
    const auto block = [&reader] { return reader.number("BLOCK", 0, kMostBlocks); };
    DfuFaults added;
    if (word == "write-error") {
        added.write_error = block();
    } else if (word == "unplug-at") {
        added.unplug_at = block();
    } else if (word == "disconnect-at-reset") {
        added.disconnect_at_reset = true;
    } else if (word == "keep-firmware") {
        added.keep_firmware = true;
    } else if (word == "serial") {
        added.serial = parse_serial(reader.next("STRING"));
    } else {
        throw BadRequest("unknown dfu fault \"" + word + "\"");
    }
    reader.expect_end();
    target.device.with_function([&added](UsbFunction& function, Millis) {
        DfuFaults& faults = function.dfu_faults();
        if (added.write_error) faults.write_error = added.write_error;
        if (added.unplug_at) faults.unplug_at = added.unplug_at;
        if (added.disconnect_at_reset) faults.disconnect_at_reset = true;
        if (added.keep_firmware) faults.keep_firmware = true;
        if (added.serial) faults.serial = added.serial;
    });
}

void clear(const Target& target, RequestReader& reader) {
    reader.expect_end();
    target.on_bus([](FaultTable& faults) { faults.clear(); });
    target.device.with_function([](UsbFunction& function, Millis) {
        function.dfu_faults() = {};
        auto* const controller = dynamic_cast<Controller*>(&function);
        if (controller != nullptr) controller->response_faults() = {};
    });
    target.bus.block_open(target.device.name(), false);
}

struct Fault {
    const char* word;
    const char* usage;
    void (*set)(const Target&, RequestReader&);
};

constexpr std::array kFaults = {
    Fault{"claim", "claim ERRNO [COUNT [SKIP]]", claim},
    Fault{"open", "open", open},
    Fault{"submit", "submit EP ERRNO [COUNT [SKIP]]", submit},
    Fault{"status", "status EP ERRNO [COUNT [SKIP]]", status},
    Fault{"never", "never EP [COUNT [SKIP]]", never},
    Fault{"silent", "silent [COUNT]", silent},
    Fault{"drop", "drop [COUNT]", drop},
    Fault{"delay", "delay MS", delay},
    Fault{"corrupt", "corrupt check|terminator|json|attrs|id|truncate [COUNT]", corrupt},
    Fault{"split", "split N", split},
    Fault{"deep", "deep N", deep},
    Fault{"flood", "flood message|job N", flood},
    Fault{"garbage", "garbage message|job N", garbage},
    Fault{"unplug-at", "unplug-at EP N", unplug_at},
    Fault{"dfu",
          "dfu write-error BLOCK|unplug-at BLOCK|disconnect-at-reset|keep-firmware|serial STRING",
          dfu},
    Fault{"clear", "clear", clear},
};

}  // namespace

void set_fault(Bus& bus, const std::string& name, RequestReader& reader) {
    const auto device = bus.at(name);
    const std::string word = reader.next("FAULT");
    for (const Fault& fault : kFaults) {
        if (word != fault.word) continue;
        fault.set({bus, *device}, reader);
        return;
    }
    throw BadRequest("unknown fault \"" + word + "\"");
}

std::string fault_help() {
    std::string help;
    for (const Fault& fault : kFaults) {
        help += std::string("  fault DEVICE ") + fault.usage + "\n";
    }
    return help;
}

}  // namespace jovusim
