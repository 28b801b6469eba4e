// SPDX-License-Identifier: Apache-2.0
#include "tool/control_commands.h"

#include <algorithm>
#include <array>
#include <exception>

namespace jovusim {

namespace {

/// Returns the string after "ok ", which may be empty.
using Handler = std::string (*)(Testbed&, RequestReader&);

struct ControlRequest {
    const char* word;
    const char* usage;
    Handler run;
};

std::string plug(Testbed& testbed, RequestReader& reader) {
    std::optional<BusAddress> address;
    PlugRequest request;
    while (const auto word = reader.next_if_any()) {
        const std::size_t equals = word->find('=');
        const std::string key = word->substr(0, equals);
        const std::string value = equals == std::string::npos ? "" : word->substr(equals + 1);
        if (key == "product") {
            request.product = parse_hex_word(value);
        } else if (key == "vendor") {
            request.vendor = parse_hex_word(value);
        } else if (key == "serial") {
            request.serial = parse_serial(value);
        } else if (key == "name") {
            request.dfu_name = parse_string(value);
        } else if (!address) {
            address = parse_address(*word);
        } else {
            throw BadRequest("unexpected \"" + *word + "\"");
        }
    }
    return testbed.plug(address, request).to_string();
}

std::string unplug(Testbed& testbed, RequestReader& reader) {
    const BusAddress address = reader.address();
    reader.expect_end();
    testbed.unplug(address);
    return {};
}

std::string replug(Testbed& testbed, RequestReader& reader) {
    const BusAddress address = reader.address();
    reader.expect_end();
    testbed.replug(address);
    return {};
}

std::string list(Testbed& testbed, RequestReader& reader) {
    reader.expect_end();
    std::string out;
    for (const auto& device : testbed.devices()) {
        const UsbIdentity& identity = device->identity();
        std::array<char, 5> product{};
        std::snprintf(product.data(), product.size(), "%04x", unsigned{identity.product});
        if (!out.empty()) out += ", ";
        out += device->address().to_string() + " product=" + product.data() +
               " serial=" + identity.serial + " clients=" + std::to_string(device->open_clients());
    }
    return out;
}

std::string stats(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    reader.expect_end();
    return device->stats().dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string event(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    const std::string text = reader.rest();
    if (text.size() > kMaxEventString) {
        throw BadRequest("STRING has " + std::to_string(text.size()) + " bytes, more than " +
                         std::to_string(kMaxEventString));
    }
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_debug_event(text, now); });
    return {};
}

std::string send(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    const Channel channel = reader.channel();
    const std::string bytes = parse_hex_bytes(reader.next("HEX"));
    reader.expect_end();
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_raw(channel, bytes, now); });
    return {};
}

std::string frame(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    const std::string text = reader.rest();
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_framed(text, now); });
    return {};
}

std::string heater(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    const std::string word = reader.next("plug|unplug");
    if (word != "plug" && word != "unplug") {
        throw BadRequest("\"" + word + "\" is neither plug nor unplug");
    }
    reader.expect_end();
    device->with_controller([&](Controller& controller, Millis) {
        controller.machine().heater().set_plugged(word == "plug");
    });
    return {};
}

std::string gpio(Testbed& testbed, RequestReader& reader) {
    const auto device = testbed.at(reader.address());
    const auto input = static_cast<std::uint32_t>(reader.number("N", 0, Gpio::kInputs - 1));
    const bool level = reader.number("level", 0, 1) == 1;
    reader.expect_end();
    device->with_controller([&](Controller& controller, Millis now) {
        controller.machine().gpio().drive_input(input, level, now);
    });
    return {};
}

std::string fault(Testbed& testbed, RequestReader& reader) {
    const BusAddress address = reader.address();
    set_fault(testbed, address, reader);
    return {};
}

constexpr std::array kRequests = {
    ControlRequest{
        "plug", "plug [BUS:ADDR] [product=HEX] [vendor=HEX] [serial=STRING] [name=STRING]", plug},
    ControlRequest{"unplug", "unplug BUS:ADDR", unplug},
    ControlRequest{"replug", "replug BUS:ADDR", replug},
    ControlRequest{"list", "list", list},
    ControlRequest{"stats", "stats BUS:ADDR", stats},
    ControlRequest{"event", "event BUS:ADDR STRING", event},
    ControlRequest{"send", "send BUS:ADDR message|job HEX", send},
    ControlRequest{"frame", "frame BUS:ADDR STRING", frame},
    ControlRequest{"heater", "heater BUS:ADDR plug|unplug", heater},
    ControlRequest{"gpio", "gpio BUS:ADDR N 0|1", gpio},
    ControlRequest{"fault", "fault BUS:ADDR FAULT...", fault},
};

}  // namespace

std::string run_control_request(Testbed& testbed, const std::string& line) {
    try {
        RequestReader reader(line);
        const std::string word = reader.next("request");
        for (const ControlRequest& request : kRequests) {
            if (word != request.word) continue;
            const std::string text = request.run(testbed, reader);
            return text.empty() ? "ok" : "ok " + text;
        }
        throw BadRequest("unknown request \"" + word + "\"");
    } catch (const std::exception& error) {
        std::string text = error.what();
        std::replace(text.begin(), text.end(), '\n', ' ');
        return "error " + text;
    }
}

std::string control_help() {
    std::string help;
    for (const ControlRequest& request : kRequests)
        help += std::string("  ") + request.usage + "\n";
    return help + "Faults:\n" + fault_help() + "COUNT is a number or \"always\", 1 if left out.\n";
}

}  // namespace jovusim
