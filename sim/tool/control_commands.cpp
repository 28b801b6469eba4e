// SPDX-License-Identifier: Apache-2.0
#include "tool/control_commands.h"

#include <algorithm>
#include <array>
#include <exception>

namespace jovusim {

namespace {

/// Returns the string after "ok ", which may be empty.
using Handler = std::string (*)(Bus&, RequestReader&);

struct ControlRequest {
    const char* word;
    const char* usage;
    Handler run;
};

std::string plug(Bus& bus, RequestReader& reader) {
    std::optional<std::string> name;
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
        } else if (!name) {
            name = word;
        } else {
            throw BadRequest("unexpected \"" + *word + "\"");
        }
    }
    return bus.plug(name, request);
}

std::string unplug(Bus& bus, RequestReader& reader) {
    const std::string name = reader.next("DEVICE");
    reader.expect_end();
    bus.unplug(name);
    return {};
}

std::string replug(Bus& bus, RequestReader& reader) {
    const std::string name = reader.next("DEVICE");
    reader.expect_end();
    bus.replug(name);
    return {};
}

std::string list(Bus& bus, RequestReader& reader) {
    reader.expect_end();
    std::string out;
    for (const auto& device : bus.devices()) {
        const UsbIdentity& identity = device->identity();
        std::array<char, 5> product{};
        std::snprintf(product.data(), product.size(), "%04x", unsigned{identity.product});
        if (!out.empty()) out += ", ";
        out += device->name() + device->address_attribute() + " product=" + product.data() +
               " serial=" + identity.serial + " clients=" + std::to_string(device->open_clients());
    }
    return out;
}

std::string stats(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
    reader.expect_end();
    return device->stats().dump(-1, ' ', true, Json::error_handler_t::replace);
}

std::string event(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
    const std::string text = reader.rest();
    if (text.size() > kMaxEventString) {
        throw BadRequest("STRING has " + std::to_string(text.size()) + " bytes, more than " +
                         std::to_string(kMaxEventString));
    }
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_debug_event(text, now); });
    return {};
}

std::string send(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
    const Channel channel = reader.channel();
    const std::string bytes = parse_hex_bytes(reader.next("HEX"));
    reader.expect_end();
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_raw(channel, bytes, now); });
    return {};
}

std::string frame(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
    const std::string text = reader.rest();
    device->with_controller(
        [&](Controller& controller, Millis now) { controller.send_framed(text, now); });
    return {};
}

std::string heater(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
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

std::string gpio(Bus& bus, RequestReader& reader) {
    const auto device = bus.at(reader.next("DEVICE"));
    const auto input = static_cast<std::uint32_t>(reader.number("N", 0, Gpio::kInputs - 1));
    const bool level = reader.number("level", 0, 1) == 1;
    reader.expect_end();
    device->with_controller([&](Controller& controller, Millis now) {
        controller.machine().gpio().drive_input(input, level, now);
    });
    return {};
}

std::string fault(Bus& bus, RequestReader& reader) {
    const std::string name = reader.next("DEVICE");
    set_fault(bus, name, reader);
    return {};
}

constexpr std::array kRequests = {
    ControlRequest{"plug", "plug [DEVICE] [product=HEX] [vendor=HEX] [serial=STRING] [name=STRING]",
                   plug},
    ControlRequest{"unplug", "unplug DEVICE", unplug},
    ControlRequest{"replug", "replug DEVICE", replug},
    ControlRequest{"list", "list", list},
    ControlRequest{"stats", "stats DEVICE", stats},
    ControlRequest{"event", "event DEVICE STRING", event},
    ControlRequest{"send", "send DEVICE message|job HEX", send},
    ControlRequest{"frame", "frame DEVICE STRING", frame},
    ControlRequest{"heater", "heater DEVICE plug|unplug", heater},
    ControlRequest{"gpio", "gpio DEVICE N 0|1", gpio},
    ControlRequest{"fault", "fault DEVICE FAULT...", fault},
};

}  // namespace

std::string run_control_request(Bus& bus, const std::string& line) {
    try {
        RequestReader reader(line);
        const std::string word = reader.next("request");
        for (const ControlRequest& request : kRequests) {
            if (word != request.word) continue;
            const std::string text = request.run(bus, reader);
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
