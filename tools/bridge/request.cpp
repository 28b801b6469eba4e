// SPDX-License-Identifier: Apache-2.0
#include "bridge/request.h"

#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "bridge/config.h"
#include "cli/failure.h"
#include "firmware/firmware_commands.h"
#include "firmware/value_strings.h"
#include "terminal/format.h"
#include "terminal/printable.h"

namespace jovu_bridge {
namespace {

using jovu_cli::Json;

constexpr std::size_t kLongestId = 128;
constexpr std::size_t kLongestName = 255;
constexpr double kShortestTimeout = 0.01;
constexpr double kLongestTimeout = 3600;
constexpr std::uint32_t kLargestServo = 255;
constexpr std::string_view kRequestLeaf = "request/";
constexpr std::string_view kCallPrefix = "call/";

/// The commands that change nothing: the only ones that a read-only device accepts.
constexpr std::array<std::string_view, 27> kReadingCommands = {
    "bio_get_version",
    "bio_get_serial",
    "gpio_get_raw",
    "gpio_input_get",
    "heater_param_get",
    "heater_in_guardband",
    "heater_state_get",
    "heater_fault_get",
    "heater_var_get",
    "wifi_client_get_status",
    "servo_dc_config_get",
    "servo_dc_move_default",
    "servo_dc_move_active",
    "servo_dc_move_modifier_validate",
    "servo_dc_move_metrics_get",
    "servo_dc_move_dir_get",
    "servo_dc_position_get",
    "servo_dc_position_get_client",
    "servo_dc_target_get_client",
    "servo_dc_units_client_to_native",
    "servo_dc_units_native_to_client",
    "servo_dc_name_str_get",
    "sd_mmc_read_byte",
    "sd_mmc_read",
    "sd_mmc_get_storage_info",
    "wifi_client_scan_get",
    "jm_are_network_tasks_enabled",
};

/// Ends the reading of a request.
struct Refused {
    const char* code;
    std::string message;
};

[[noreturn]] void refuse(const char* code, const std::string& message) {
    constexpr std::size_t kLongest = 600;  // A topic may have 64 KiB, and each byte an escape.
    throw Refused{code, jovu_cli::fit(jovu_cli::printable(message), kLongest)};
}

[[noreturn]] void refuse(const std::string& message) {
    refuse("invalid_request", message);
}

/// @return the beginning of a value, for messages.
std::string excerpt(const Json& value) {
    constexpr std::size_t kLongest = 80;
    std::string shown = value.dump(-1, ' ', true, Json::error_handler_t::replace);
    if (shown.size() > kLongest) {
        shown.resize(kLongest);
        shown += "...";
    }
    return shown;
}

bool begins_with(std::string_view value, std::string_view prefix) {
    return value.substr(0, prefix.size()) == prefix;
}

std::string sha256(std::initializer_list<std::string_view> parts) {
    std::string all;
    for (const std::string_view part : parts) {
        all += std::to_string(part.size()) + ':';
        all += part;
    }
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char*>(all.data()), all.size(), digest.data());
    std::string hex;
    for (const unsigned char byte : digest) {
        hex += "0123456789abcdef"[byte >> 4U];
        hex += "0123456789abcdef"[byte & 15U];
    }
    return hex;
}

/// Reads the members of a payload, and knows afterwards which were left over.
class Members {
public:
    explicit Members(const Json& object) : object_(object) {}

    const Json* find(const char* key) {
        known_.emplace_back(key);
        const auto found = object_.find(key);
        return found == object_.end() || found->is_null() ? nullptr : &*found;
    }

    const Json& need(const char* key) {
        const Json* const value = find(key);
        if (value == nullptr) {
            refuse(std::string("without \"") + key + "\"");
        }
        return *value;
    }

    std::string need_string(const char* key, std::size_t longest) {
        const Json& value = need(key);
        if (!value.is_string()) {
            refuse(std::string("\"") + key + "\" is not a string: " + excerpt(value));
        }
        auto string = value.get<std::string>();
        if (string.size() > longest || string.find('\0') != std::string::npos) {
            refuse(std::string("\"") + key + "\" is longer than " + std::to_string(longest) +
                   " bytes, or holds a NUL: " + excerpt(value));
        }
        return string;
    }

    /// @param lowest inclusive, as @p highest.
    double need_number(const char* key, double lowest, double highest, const char* unit) {
        const Json& value = need(key);
        if (!value.is_number() || !(value.get<double>() >= lowest) ||
            !(value.get<double>() <= highest)) {
            refuse(std::string("\"") + key + "\" is not " + Json(lowest).dump() + " to " +
                   Json(highest).dump() + unit + ": " + excerpt(value));
        }
        return value.get<double>();
    }

    std::uint64_t need_whole(const char* key, std::uint64_t highest) {
        const Json& value = need(key);
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() > highest) {
            refuse(std::string("\"") + key + "\" is not a whole number from 0 to " +
                   std::to_string(highest) + ": " + excerpt(value));
        }
        return value.get<std::uint64_t>();
    }

    bool flag(const char* key) {
        const Json* const value = find(key);
        if (value != nullptr && !value->is_boolean()) {
            refuse(std::string("\"") + key + "\" is not true or false: " + excerpt(*value));
        }
        return value != nullptr && value->get<bool>();
    }

    /// A misspelt member must not be taken for one that is left out.
    void refuse_others() const {
        for (const auto& [key, value] : object_.items()) {
            if (std::find(known_.begin(), known_.end(), key) == known_.end()) {
                refuse("unknown member \"" + key + "\": " + excerpt(value));
            }
        }
    }

private:
    const Json& object_;
    std::vector<std::string> known_;
};

/// @return the id; empty when there is none.
std::string read_id(Members& members) {
    const Json* const value = members.find("id");
    if (value == nullptr) {
        return {};
    }
    const bool permitted = value->is_string() && !value->get_ref<const std::string&>().empty() &&
                           value->get_ref<const std::string&>().size() <= kLongestId;
    if (!permitted || !std::all_of(value->get_ref<const std::string&>().begin(),
                                   value->get_ref<const std::string&>().end(),
                                   [](char c) { return c >= ' ' && c <= '~'; })) {
        refuse("\"id\" is not a string of 1 to " + std::to_string(kLongestId) +
               " printable ASCII characters: " + excerpt(*value));
    }
    return value->get<std::string>();
}

std::chrono::milliseconds milliseconds(double seconds) {
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

/// Reads one message.
class Reader {
public:
    Reader(const IncomingMessage& message, const RequestRules& rules, Request& request)
        : message_(message), rules_(rules), request_(request) {}

    void read() {
        const auto topic = rules_.topics.parse_device(message_.topic);
        if (!topic || !begins_with(topic->leaf, kRequestLeaf)) {
            refuse("not the topic of a request: " + message_.topic);
        }
        request_.device = topic->serial;
        request_.operation = topic->leaf.substr(kRequestLeaf.size());
        request_.expiry = message_.expiry;
        check_response_topic();
        if (message_.payload.size() > rules_.max_payload) {
            refuse("too_large", "the payload has " + std::to_string(message_.payload.size()) +
                                    " bytes; at most " + std::to_string(rules_.max_payload) +
                                    " are accepted");
        }
        const Json payload = parsed_payload();
        Members members(payload);
        request_.id = read_id(members);
        if (message_.retained) {
            refuse("the request is retained: it would be carried out again at each connection");
        }
        read_content(members);
        members.refuse_others();
        if (!request_.reading && request_.id.empty()) {
            refuse("without \"id\", which everything but reading needs");
        }
        if (!request_.reading && jovu_bridge::matches_any(rules_.read_only, request_.device)) {
            refuse("read_only", "the device is read-only: " + request_.operation);
        }
        request_.digest = sha256({request_.operation, payload.dump()});
    }

private:
    void check_response_topic() {
        if (message_.response_topic.empty()) {
            return;
        }
        const std::string problem = rules_.topics.refuse_response_topic(message_.response_topic);
        if (!problem.empty()) {
            refuse("the response topic is not permitted, " + problem + ": " +
                   message_.response_topic);
        }
        request_.reply = {message_.response_topic, message_.correlation};
    }

    Json parsed_payload() const {
        try {
            Json payload = jovu_cli::parse_strict_json(message_.payload);
            if (!payload.is_object()) {
                refuse("the payload is not a JSON object: " + excerpt(payload));
            }
            return payload;
        } catch (const jovu_cli::BadValue& bad) {
            refuse(std::string("the payload ") + bad.what() + bad.quoted());
        }
    }

    void read_content(Members& members) {
        const std::string& operation = request_.operation;
        if (begins_with(operation, kCallPrefix)) {
            read_call(members, operation.substr(kCallPrefix.size()));
        } else if (operation == "gcode") {
            read_gcode(members);
        } else if (operation == "job") {
            read_job(members);
        } else if (operation == "trace") {
            read_trace(members);
        } else {
            read_control(operation);
        }
    }

    void check_command(const std::string& name) const {
        if (!jovu_bridge::matches_any(rules_.commands, name)) {
            refuse("not_allowed", "the configuration does not permit the command " + name);
        }
    }

    void read_call(Members& members, const std::string& name) {
        const std::vector<jovu_cli::FirmwareCommand>& commands = jovu_cli::firmware_commands();
        const auto command =
            std::find_if(commands.begin(), commands.end(),
                         [&](const jovu_cli::FirmwareCommand& row) { return row.name == name; });
        if (command == commands.end()) {
            refuse("unknown_operation", "the firmware has no command: " + name);
        }
        check_command(name);
        CallRequest call;
        call.command = &*command;
        if (members.find("timeout") != nullptr) {
            call.timeout = milliseconds(
                members.need_number("timeout", kShortestTimeout, kLongestTimeout, " seconds"));
        }
        const Json* const given = members.find("arguments");
        try {
            call.arguments = std::make_shared<const Json>(
                jovu_cli::read_arguments(*command, given == nullptr ? Json::object() : *given));
        } catch (const jovu_cli::Failure& failure) {
            refuse(failure.what() + (failure.hint().empty() ? "" : " (" + failure.hint() + ")"));
        }
        request_.reading = is_reading(name);
        request_.content = std::move(call);
    }

    void read_gcode(Members& members) {
        check_command("gcode_process_command");
        const Json& lines = members.need("lines");
        if (!lines.is_array() || lines.empty()) {
            refuse("\"lines\" is not a list of strings: " + excerpt(lines));
        }
        if (lines.size() > rules_.max_lines) {
            refuse("too_large", "\"lines\" has " + std::to_string(lines.size()) +
                                    " elements; at most " + std::to_string(rules_.max_lines) +
                                    " are accepted");
        }
        GcodeRequest gcode;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (!lines[i].is_string() || has_control(lines[i].get_ref<const std::string&>())) {
                refuse("\"lines\" has an element that is not one line: " + excerpt(lines[i]));
            }
            std::string code = jovu_cli::strip_gcode(lines[i].get_ref<const std::string&>());
            if (!code.empty()) {
                gcode.lines.push_back(std::move(code));
                gcode.numbers.push_back(i + 1);
            }
        }
        gcode.keep_going = members.flag("keep_going");
        request_.content = std::move(gcode);
    }

    static bool has_control(const std::string& line) {
        return std::any_of(line.begin(), line.end(),
                           [](char c) { return (c >= 0 && c < ' ' && c != '\t') || c == '\x7f'; });
    }

    void read_control(const std::string& operation) {
        static constexpr std::pair<std::string_view, Control> kControls[] = {
            {"pause", Control::pause},
            {"resume", Control::resume},
            {"abort", Control::abort},
            {"status", Control::status},
        };
        const auto* const control =
            std::find_if(std::begin(kControls), std::end(kControls),
                         [&](const auto& row) { return row.first == operation; });
        if (control == std::end(kControls)) {
            refuse("unknown_operation", "unknown operation: " + operation);
        }
        request_.reading = control->second == Control::status;
        request_.content = control->second;
    }

    /// A job is gcode too.
    void read_job(Members& members) {
        check_command("gcode_process_command");
        JobRequest job;
        job.reference.url = members.need_string("url", rules_.max_payload);
        job.reference.size = members.need_whole("size", std::numeric_limits<std::int64_t>::max());
        job.reference.sha256 = members.need_string("sha256", 64);
        if (members.find("name") != nullptr) {
            job.name = members.need_string("name", kLongestName);
        }
        job.wait = members.flag("wait");
        request_.content = std::move(job);
    }

    void read_trace(Members& members) {
        check_command("servo_dc_trace_enable");
        TraceRequest trace;
        trace.servo = static_cast<std::uint32_t>(members.need_whole("servo", kLargestServo));
        trace.length = milliseconds(members.need_number(
            "seconds", kShortestTimeout, std::chrono::duration<double>(rules_.max_trace).count(),
            " seconds"));
        request_.content = trace;
    }

    const IncomingMessage& message_;
    const RequestRules& rules_;
    Request& request_;
};

}  // namespace

bool is_reading(std::string_view command) {
    return std::find(kReadingCommands.begin(), kReadingCommands.end(), command) !=
           kReadingCommands.end();
}

std::variant<Request, Refusal> parse_request(const IncomingMessage& message,
                                             const RequestRules& rules) {
    Request request;
    try {
        Reader(message, rules, request).read();
        return request;
    } catch (const Refused& refused) {
        return Refusal{request.device, jovu_cli::printable(request.operation),
                       request.id,     request.reply,
                       refused.code,   refused.message};
    }
}

}  // namespace jovu_bridge
