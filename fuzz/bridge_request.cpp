// SPDX-License-Identifier: Apache-2.0

/// @file
/// Requests to the bridge: flags, then topic and response topic, each ended by a line feed, then
/// the payload. Most inputs name an operation only: "gcode", for a topic that is one of a request.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <variant>

#include "bridge/request.h"
#include "cli/json.h"
#include "firmware/firmware_commands.h"
#include "require.h"

namespace {

/// Removes and returns what is before the next line feed.
std::string take_line(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    std::string line(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return line;
}

bool is_hex(std::string_view digits) {
    return digits.size() == 64 &&
           digits.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void check_request(const jovu_bridge::Request& request, const jovu_bridge::RequestRules& rules,
                   bool retained) {
    REQUIRE(!retained);
    REQUIRE(!request.device.empty());
    REQUIRE(!request.id.empty() || request.reading);
    REQUIRE(request.id.size() <= 128);
    REQUIRE(is_hex(request.digest));
    REQUIRE(request.reply.topic.find_first_of("+#") == std::string::npos);
    REQUIRE(request.reply.topic.rfind("jovu/devices", 0) != 0);
    REQUIRE(request.reading || rules.read_only.empty());
    if (const auto* call = std::get_if<jovu_bridge::CallRequest>(&request.content)) {
        REQUIRE(call->command->name != "Reset_printer" && call->command->name != "Enter_dfu_mode");
        for (const jovu_cli::NamedType& argument : call->command->arguments)
            REQUIRE(call->arguments->contains(std::string(argument.key)));
    } else if (const auto* gcode = std::get_if<jovu_bridge::GcodeRequest>(&request.content)) {
        REQUIRE(gcode->lines.size() == gcode->numbers.size());
        REQUIRE(gcode->lines.size() <= rules.max_lines);
        for (const std::string& line : gcode->lines)
            REQUIRE(line.find_first_of("\r\n") == std::string::npos);
    } else if (const auto* trace = std::get_if<jovu_bridge::TraceRequest>(&request.content)) {
        REQUIRE(trace->length.count() > 0 && trace->length <= rules.max_trace);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    const unsigned flags = data[0];
    rest.remove_prefix(1);
    jovu_bridge::RequestRules rules;
    rules.max_payload = 8192;
    rules.max_lines = 20;
    if ((flags & 1U) != 0) rules.read_only = {"*"};
    jovu_bridge::IncomingMessage message;
    message.retained = (flags & 2U) != 0;
    message.topic = take_line(rest);
    if ((flags & 4U) == 0) message.topic = rules.topics.request("A1", message.topic);
    message.response_topic = take_line(rest);
    message.payload = rest;

    const auto result = jovu_bridge::parse_request(message, rules);
    const auto again = jovu_bridge::parse_request(message, rules);
    REQUIRE(result.index() == again.index());
    if (const auto* request = std::get_if<jovu_bridge::Request>(&result)) {
        REQUIRE(message.payload.size() <= rules.max_payload);
        check_request(*request, rules, message.retained);
        REQUIRE(request->digest == std::get<jovu_bridge::Request>(again).digest);
    } else {
        const auto& refusal = std::get<jovu_bridge::Refusal>(result);
        REQUIRE(!refusal.code.empty() && !refusal.message.empty());
        REQUIRE(refusal.message.size() < 2000);
        // It becomes a part of a response and of a line of the log.
        REQUIRE(!jovu_cli::Json(refusal.message).dump().empty());
        REQUIRE(refusal.message.find_first_of("\r\n\x1b") == std::string::npos);
        REQUIRE(refusal.reply.topic.find_first_of("+#") == std::string::npos);
    }
    return 0;
}
