/// @file
/// A host for tests of the firmware model: sends bytes, reads packets, moves the clock.
#pragma once

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "firmware/base/values.h"
#include "firmware/usb/controller.h"

namespace jovusim::test {

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

    /// Sends a command and returns the body of its response, as
    /// {"idx":..,"args":..,"__return__":..}. Events that come before it are dropped.
    Json call(const std::string& name, const std::string& args = "") {
        const Command* command_row = find_command(name);
        if (command_row == nullptr) throw std::runtime_error("no command " + name);
        const auto responses = exchange(command(1, command_row->idx, name, args));
        return responses.empty() ? Json() : responses.back()["data"]["command"];
    }

    /// The result of a command; null when it was refused.
    Json result(const std::string& name, const std::string& args = "") {
        const Json body = call(name, args);
        return body.contains("__return__") ? body["__return__"] : Json();
    }

    /// Plays steps such as "gpio_get_raw 5 -> 1;": a command with its arguments, then its result,
    /// the arguments that the device has changed and the texts of debug events. "+20;" waits.
    /// Returns the steps as they went.
    std::string play(const std::string& script) {
        std::string out;
        std::istringstream steps(script);
        for (std::string step; std::getline(steps, step, ';'); out += ";") {
            std::istringstream words(step.substr(0, step.find(" ->")));
            out += words.str();
            std::string word;
            if (!(words >> word)) break;
            if (word.front() == '+') {
                wait(std::stol(word));
                continue;
            }
            const Command* const row = find_command(word);
            if (row == nullptr) throw std::runtime_error("no command " + word);
            Json args;
            for (std::size_t i = 0; words >> word; ++i) {
                if (word.front() == '"') word = bytes_of(word.substr(1, word.size() - 2));
                args[row->arguments.at(i).key] = Json::parse(word);
            }
            const std::string sent = args.is_null() ? "" : args.dump();
            const auto responses = exchange(command(1, row->idx, row->name, sent));
            const Json body = responses.back()["data"]["command"];
            out += " -> " + body.value("__return__", Json()).dump();
            for (const auto& [key, value] : args.items())
                if (body["args"][key] != value) out += " " + body["args"][key].dump();
            for (const Json& response : responses) {
                const Json event = response["data"].value("event", Json::object());
                if (event.value("name", "") == "debug_event")
                    out += " " + string_from_json(event["args"]["text"]).value();
            }
        }
        return out;
    }

    /// Lets time go by as the bus does, in steps.
    void wait(Millis span) {
        const Millis end = now + span;
        while (now < end) {
            now = std::min(now + 10, end);
            controller.tick(now);
        }
    }

    Json machine() { return stats()["machine"]; }

    Json stats() { return controller.stats(now); }
    std::uint64_t violations() { return stats()["protocol_violations"]["count"]; }

    /// A frame, made here and not by the code under test.
    static std::string framed(const std::string& payload) {
        const std::size_t length = payload.size() + 1;
        std::string out = "$";
        for (const std::size_t word : {length, ~length}) {
            out += static_cast<char>(word & 0xFFU);
            out += static_cast<char>((word >> 8U) & 0xFFU);
        }
        return out + payload + ";";
    }

    /// Takes a string of frames apart. Anything that is no frame is an error.
    static std::vector<Json> messages(const std::string& bytes);

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
        for (const char c : text) {
            out += std::to_string(static_cast<int>(static_cast<signed char>(c))) + ",";
        }
        return out + "0]";
    }

    Controller controller;
    Millis now = 1'000'000;
};

inline std::vector<Json> FirmwareHost::messages(const std::string& bytes) {
    std::vector<Json> out;
    const auto byte = [&bytes](std::size_t at) {
        return static_cast<std::size_t>(static_cast<unsigned char>(bytes.at(at)));
    };
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = byte(at + 1) + (byte(at + 2) << 8U);
        const std::size_t check = byte(at + 3) + (byte(at + 4) << 8U);
        if (bytes[at] != '$' || (length ^ check) != 0xFFFFU || bytes.at(at + 4 + length) != ';') {
            throw std::runtime_error("no frame at byte " + std::to_string(at));
        }
        out.push_back(Json::parse(bytes.substr(at + 5, length - 1)));
        at += 5 + length;
    }
    return out;
}

}  // namespace jovusim::test
