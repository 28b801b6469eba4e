#include "tool/fault_commands.h"

#include <array>
#include <limits>

namespace jovusim {

namespace {

constexpr Millis kLongestDelay = Millis{3600} * 1000;
constexpr std::uint64_t kMostFlood = 100'000'000;
constexpr std::uint64_t kMostGarbage = 1ULL << 32U;

constexpr std::uint64_t kMostBlocks = 1'000'000;

/// As deep as still fits into a frame.
constexpr std::uint32_t kDeepest = 32000;

struct Target {
    Testbed& testbed;
    SimDevice& device;

    void on_bus(const std::function<void(FaultBoard&)>& work) const { device.with_faults(work); }
    void on_firmware(const std::function<void(Controller&)>& work) const {
        device.with_controller([&work](Controller& controller, Millis) { work(controller); });
    }
    void on_answers(const std::function<void(Misbehaviour&)>& work) const {
        on_firmware([&work](Controller& controller) { work(controller.misbehaviour()); });
    }

    /// An endpoint of this device.
    std::uint8_t endpoint(Words& words) const {
        const std::uint8_t address = words.endpoint();
        for (const InterfaceInfo& interface : device.identity().interfaces) {
            for (const EndpointInfo& endpoint : interface.endpoints) {
                if (endpoint.address == address) return address;
            }
        }
        throw BadRequest("EP \"" + std::to_string(address) + "\" is no endpoint of the device");
    }
};

struct Repetition {
    std::uint32_t count;
    std::uint32_t skip;
};

Repetition repetition(Words& words) {
    const std::uint32_t count = words.count(1);
    return {count, words.optional_number("SKIP", 0)};
}

void add(const Target& target, BusFault fault, std::uint8_t endpoint, int error, Words& words) {
    const Repetition times = repetition(words);
    words.expect_end();
    target.on_bus(
        [&](FaultBoard& faults) { faults.add(fault, endpoint, error, times.count, times.skip); });
}

void claim(const Target& target, Words& words) {
    const int error = words.error_name();
    add(target, BusFault::claim, 0, error, words);
}

void submit(const Target& target, Words& words) {
    const std::uint8_t endpoint = target.endpoint(words);
    const int error = words.error_name();
    add(target, BusFault::submit, endpoint, error, words);
}

void status(const Target& target, Words& words) {
    const std::uint8_t endpoint = target.endpoint(words);
    const int error = words.error_name();
    add(target, BusFault::status, endpoint, error, words);
}

void never(const Target& target, Words& words) {
    const std::uint8_t endpoint = target.endpoint(words);
    add(target, BusFault::never, endpoint, 0, words);
}

void open(const Target& target, Words& words) {
    words.expect_end();
    target.testbed.block_open(target.device.address(), true);
}

void silent(const Target& target, Words& words) {
    const std::uint32_t count = words.count(1);
    words.expect_end();
    target.on_answers([count](Misbehaviour& faults) { faults.silent.set(count); });
}

void drop(const Target& target, Words& words) {
    const std::uint32_t count = words.count(1);
    words.expect_end();
    target.on_answers([count](Misbehaviour& faults) { faults.drop.set(count); });
}

void delay(const Target& target, Words& words) {
    const auto delay = static_cast<Millis>(words.number("MS", 0, kLongestDelay));
    words.expect_end();
    target.on_answers([delay](Misbehaviour& faults) { faults.delay = delay; });
}

void corrupt(const Target& target, Words& words) {
    const std::string name = words.next("what to corrupt");
    const auto kind = corruption_from_name(name);
    if (!kind) throw BadRequest("\"" + name + "\" cannot be corrupted");
    const std::uint32_t count = words.count(1);
    words.expect_end();
    target.on_answers(
        [&](Misbehaviour& faults) { faults.corrupt[static_cast<std::size_t>(*kind)].set(count); });
}

void split(const Target& target, Words& words) {
    const auto size = static_cast<std::size_t>(words.number("N", 1, kMaxPacket));
    words.expect_end();
    target.on_answers([size](Misbehaviour& faults) { faults.packet_size = size; });
}

void deep(const Target& target, Words& words) {
    const auto depth = static_cast<std::uint32_t>(words.number("N", 1, kDeepest));
    words.expect_end();
    target.on_answers([depth](Misbehaviour& faults) { faults.deep = depth; });
}

void flood(const Target& target, Words& words) {
    const Channel channel = words.channel();
    const std::uint64_t count = words.number("N", 1, kMostFlood);
    words.expect_end();
    target.on_firmware([&](Controller& controller) { controller.flood(channel, count); });
}

void garbage(const Target& target, Words& words) {
    const Channel channel = words.channel();
    const std::uint64_t bytes = words.number("N", 1, kMostGarbage);
    words.expect_end();
    target.on_firmware([&](Controller& controller) { controller.send_garbage(channel, bytes); });
}

void unplug_at(const Target& target, Words& words) {
    const std::uint8_t endpoint = target.endpoint(words);
    if ((endpoint & 0x80U) != 0) throw BadRequest("EP must be an OUT endpoint");
    const std::uint64_t bytes = words.number("N", 0, std::numeric_limits<std::uint32_t>::max());
    words.expect_end();
    target.on_bus([&](FaultBoard& faults) { faults.unplug_after(endpoint, bytes); });
}

void dfu(const Target& target, Words& words) {
    const std::string word = words.next("what goes wrong");
    const auto block = [&words] { return words.number("BLOCK", 0, kMostBlocks); };
    DfuFaults added;
    if (word == "write-error") {
        added.write_error = block();
    } else if (word == "unplug-at") {
        added.unplug_at = block();
    } else if (word == "leave-at-reset") {
        added.leave_at_reset = true;
    } else if (word == "keep-firmware") {
        added.keep_firmware = true;
    } else if (word == "serial") {
        added.serial = parse_serial(words.next("TEXT"));
    } else {
        throw BadRequest("unknown dfu fault \"" + word + "\"");
    }
    words.expect_end();
    target.device.with_function([&added](UsbFunction& function, Millis) {
        DfuFaults& faults = function.dfu_faults();
        if (added.write_error) faults.write_error = added.write_error;
        if (added.unplug_at) faults.unplug_at = added.unplug_at;
        if (added.leave_at_reset) faults.leave_at_reset = true;
        if (added.keep_firmware) faults.keep_firmware = true;
        if (added.serial) faults.serial = added.serial;
    });
}

void clear(const Target& target, Words& words) {
    words.expect_end();
    target.on_bus([](FaultBoard& faults) { faults.clear(); });
    target.device.with_function([](UsbFunction& function, Millis) {
        function.dfu_faults() = {};
        auto* const controller = dynamic_cast<Controller*>(&function);
        if (controller != nullptr) controller->misbehaviour() = {};
    });
    target.testbed.block_open(target.device.address(), false);
}

struct Fault {
    const char* word;
    const char* usage;
    void (*set)(const Target&, Words&);
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
    Fault{"dfu", "dfu write-error BLOCK|unplug-at BLOCK|leave-at-reset|keep-firmware|serial TEXT",
          dfu},
    Fault{"clear", "clear", clear},
};

}  // namespace

void set_fault(Testbed& testbed, BusAddress address, Words& words) {
    const auto device = testbed.at(address);
    const std::string word = words.next("FAULT");
    for (const Fault& fault : kFaults) {
        if (word != fault.word) continue;
        fault.set({testbed, *device}, words);
        return;
    }
    throw BadRequest("unknown fault \"" + word + "\"");
}

std::string fault_help() {
    std::string help;
    for (const Fault& fault : kFaults) {
        help += std::string("  fault BUS:ADDR ") + fault.usage + "\n";
    }
    return help;
}

}  // namespace jovusim
