// SPDX-License-Identifier: Apache-2.0

/// @file
/// A host for tests of the firmware model: sends bytes, reads packets, moves the clock.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_usb/framed.h"
#include "firmware/base/values.h"
#include "firmware/usb/controller.h"

namespace jovusim::test {

using ::test::framed;

/// Speaks to a controller without any bus.
class FirmwareHost {
public:
    explicit FirmwareHost(double time_scale = 1.0)
        : controller({"JVSTEST", kApplicationProduct, time_scale}) {}

    void send(std::uint8_t endpoint, const std::string& bytes) {
        controller.receive(endpoint, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                           bytes.size(), now);
    }

    /// All packets that may be seen now.
    std::vector<std::string> packets(std::uint8_t endpoint) {
        std::vector<std::string> out;
        while (auto packet = controller.next_packet(endpoint, now))
            out.push_back(*packet);
        return out;
    }

    /// All bytes that may be seen now.
    std::string read(std::uint8_t endpoint) {
        std::string out;
        for (const std::string& packet : packets(endpoint))
            out += packet;
        return out;
    }

    /// Sends a request on the message channel and reads what comes back: payloads of frames.
    std::vector<Json> exchange(const std::string& payload) {
        send(kMessageOut, framed(payload));
        return messages(read(kMessageIn));
    }

    /// Carries out one command, such as "gpio_get_raw 5", and returns its result. Prefixes of
    /// families may be left out. An argument is JSON or a string in quotes. A structure is an
    /// object with the members that differ from the defaults below or from the present
    /// configuration; for a network, it is an array of SSID and key.
    /// @param more what else came back: arguments that the device has changed, debug events
    Json ask(const std::string& step, std::string* more = nullptr) {
        std::istringstream words(step);
        std::string word;
        words >> word;
        const Command* row = nullptr;
        for (const char* family : {"", "servo_dc_", "gcode_process_", "heater_", "wifi_"})
            if (row == nullptr) row = find_command(family + word);
        if (row == nullptr) throw std::runtime_error("no command " + word);
        Json args;
        for (std::size_t i = 0; words >> std::ws && words.peek() != EOF; ++i) {
            const bool is_string = words.peek() == '"';
            words >> std::quoted(word);
            Json value = Json::parse(is_string ? bytes_of(word) : word);
            const std::string key = row->arguments.at(i).key;
            if (key == "config" && args.contains("servo_name"))
                value = changed(ask("config_get " + args["servo_name"].dump()), value);
            if (key == "config" && args.contains("cmd"))
                value = Json::array({changed(ask("client_get_configuration 0"), value)});
            if (key == "connect_t")
                value = {{"ssid", signed_field(value[0], 32)},
                         {"key", signed_field(value[1], 64)},
                         {"timeout", 1000}};
            if (key == "move_config") value = Json::array({changed(Json::parse(kMove), value)});
            if (key == "modifer_data" || key == "modifier_data")
                value = Json::array({changed(Json::parse(kModifier), value)});
            args[key] = value;
        }
        const auto messages =
            exchange(command(1, row->idx, row->name, args.is_null() ? "" : args.dump()));
        // Samples may come before it and behind it.
        const auto response =
            std::find_if(messages.begin(), messages.end(),
                         [](const Json& message) { return message["data"].contains("command"); });
        if (response == messages.end()) throw std::runtime_error("no response to " + step);
        const Json body = (*response)["data"]["command"];
        for (const auto& [key, value] : args.items())
            if (more != nullptr && body["args"][key] != value)
                *more += " " + body["args"][key].dump();
        for (const Json& message : messages) {
            const Json event = message["data"].value("event", Json::object());
            if (more != nullptr && event.value("name", "") == "debug_event")
                *more += " " + string_from_json(event["args"]["text"]).value();
        }
        return body.value("__return__", Json());
    }

    /// Plays a conversation: steps that end with ";". "+20" waits, "?heater/state" is a member of
    /// the machine's stats, "!input 0 1" and "!heater 0" drive an input and plug the heater in or
    /// out, "!host 0" closes the device for the host, and any other step is for ask(); " @/ip"
    /// selects a member of the result. Returns the steps with what came back, as "gpio_get_raw 5 ->
    /// 1;", so that a whole script can be compared.
    std::string play(const std::string& script) {
        std::string out;
        std::string step;
        bool quoted = false;
        for (const char c : script) {
            if (c == '"') quoted = !quoted;
            if (c != ';' || quoted) {
                step += c;
                continue;
            }
            step = step.substr(0, step.find(" ->"));
            out += step;
            const std::string words = step.substr(step.find_first_not_of("\n "));
            std::string more;
            unsigned number = 0;
            unsigned level = 0;
            if (words[0] == '+') {
                wait(std::stol(words));
            } else if (words[0] == '?') {
                out += " -> " + machine().at(Json::json_pointer("/" + words.substr(1))).dump();
            } else if (std::sscanf(words.c_str(), "!input %u %u", &number, &level) == 2) {
                controller.machine().gpio().drive_input(number, level != 0, now);
            } else if (std::sscanf(words.c_str(), "!heater %u", &level) == 1) {
                controller.machine().heater().set_plugged(level != 0);
            } else if (std::sscanf(words.c_str(), "!host %u", &level) == 1) {
                level != 0 ? controller.host_opened(now) : controller.host_closed();
            } else {
                const std::size_t member = std::min(words.find(" @"), words.size());
                const Json result = ask(words.substr(0, member), &more);
                const std::string path = words.substr(std::min(member + 2, words.size()));
                out += " -> " + result.at(Json::json_pointer(path)).dump();
            }
            out += more + ";";
            step.clear();
        }
        return out + step;
    }

    /// Lets time go by as the bus does, in steps.
    void wait(Millis span) {
        const Millis end = now + span;
        while (now < end) {
            now = std::min(now + 10, end);
            const std::optional<Millis> due = controller.next_tick();
            if (due && *due <= now) controller.tick(now);
        }
    }

    Json machine() { return stats()["machine"]; }

    Json stats() { return controller.stats(now); }
    std::uint64_t violations() { return stats()["protocol_violations"]["count"]; }

    /// Takes a string of frames apart. Anything that is no frame is an error.
    static std::vector<Json> messages(const std::string& bytes) {
        std::vector<Json> out;
        for (std::size_t at = 0; at < bytes.size();) {
            const auto low = static_cast<unsigned char>(bytes.at(at + 1));
            const auto high = static_cast<unsigned char>(bytes.at(at + 2));
            const std::string payload = bytes.substr(at + 5, low + high * 256U - 1U);
            if (bytes.compare(at, payload.size() + 6, framed(payload)) != 0)
                throw std::runtime_error("no frame at byte " + std::to_string(at));
            out.push_back(Json::parse(payload));
            at += payload.size() + 6;
        }
        return out;
    }

    static std::string command(std::uint32_t id, int idx, const std::string& name,
                               const std::string& args = "") {
        return R"({"transport":{"attrs":["request","twoway"],"id":)" + std::to_string(id) +
               R"(},"data":{"command":{"idx":)" + std::to_string(idx) + R"(,"name":")" + name +
               "\"" + (args.empty() ? "" : ",\"args\":" + args) + "}}}";
    }

    static std::string gcode(std::uint32_t id, const std::string& line) {
        return command(id, 5, "gcode_process_command", "{\"command\":" + bytes_of(line) + "}");
    }

    /// A text as an array of numbers that ends with 0.
    static std::string bytes_of(const std::string& text) {
        std::string out = "[";
        for (const char c : text)
            out += std::to_string(static_cast<signed char>(c)) + ",";
        return out + "0]";
    }

    static Json changed(Json value, const Json& changes) {
        value.merge_patch(changes);
        return value;
    }
    static constexpr const char* kMove =
        R"({"move_type":0,"start_sync":0,"target":0.0,"distance":0.0,"speed_f":50,"accel_f":1000,)"
        R"("decel_f":1000,"max_cycles":0,"metric_skip":0,"speed_offset_upramp_f":0,)"
        R"("speed_offset_downramp_f":0,"ignore_stalls":0,"slaved":0,"slave_ratio":1})";
    static constexpr const char* kModifier =
        R"({"servo_name":0,"type":0,"pos":0.0,"vel":0,"accel":0,"decel":0,"validation_pos":0,)"
        R"("use_validation_pos":0,"decel_ramp_skip":0,"data":0,"active":1})";

    Controller controller;
    Millis now = 1'000'000;
};

}  // namespace jovusim::test
